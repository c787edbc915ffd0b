#pragma once
// The order in which a mixer's commands leave for the service. A command with a key replaces the older
// unsent command with the same key and moves to the end, so a slider dragged faster than the socket
// carries sends only its newest position; a command without a key is a barrier that nothing overtakes
// and nothing behind it replaces.

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <utility>

namespace tonavi {

template <class Value> struct MixerCommandBuffer {
    struct Entry {
        std::optional<std::string> key;
        Value value;
    };

    std::deque<Entry> entries; // first is next out

    std::size_t count() const { return entries.size(); }

    void append(Value value, std::optional<std::string> key) {
        if (key) {
            // Only entries behind the newest barrier may be replaced.
            auto rangeStart = entries.begin();
            for (auto it = entries.end(); it != entries.begin();) {
                --it;
                if (!it->key) {
                    rangeStart = std::next(it);
                    break;
                }
            }
            for (auto it = entries.end(); it != rangeStart;) {
                --it;
                if (it->key == key) {
                    entries.erase(it);
                    break;
                }
            }
        }
        entries.push_back(Entry{std::move(key), std::move(value)});
    }

    std::optional<Value> popFirst() {
        if (entries.empty())
            return std::nullopt;
        std::optional<Value> first(std::move(entries.front().value));
        entries.pop_front();
        return first;
    }
};

} // namespace tonavi
