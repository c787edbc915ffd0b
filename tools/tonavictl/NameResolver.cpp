#include "tools/tonavictl/NameResolver.hpp"

#include "core/outputs/OutputGroupIdentity.hpp"
#include "core/wire/TonaviStatus.hpp"

#include <algorithm>
#include <cctype>
#include <tuple>

namespace tonavi {

namespace {

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

std::string label(const NameResolver::Candidate& c) {
    if (c.name.empty() || c.name == c.id)
        return c.id;
    return c.name + " (" + c.id + ")";
}

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& item : items)
        out += (out.empty() ? "" : ", ") + item;
    return out;
}

// How far a key is from the query: 0 for a prefix, 1 for a substring, else 2 + the edit distance. A
// key only counts as close when it is within a third of the query's length (at least two edits).
std::optional<std::size_t> closeness(const std::string& key, const std::string& query) {
    if (key.empty() || query.empty())
        return std::nullopt;
    if (key.rfind(query, 0) == 0)
        return 0;
    if (key.find(query) != std::string::npos)
        return 1;
    const std::size_t distance = editDistance(key, query);
    if (distance <= std::max<std::size_t>(2, query.size() / 3))
        return 2 + distance;
    return std::nullopt;
}

} // namespace

std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

NameResolver::NameResolver(std::string kind, std::vector<Candidate> candidates)
    : kind_(std::move(kind)), candidates_(std::move(candidates)) {}

NameResolver NameResolver::applications(const TonaviStatus& status) {
    std::vector<Candidate> candidates;
    for (const auto& app : status.apps)
        candidates.push_back({app.id, app.displayName, {}});
    return NameResolver("application", std::move(candidates));
}

namespace {

// A device by UID, name and nickname. An output group's aggregate is named "Tonavi Group — NAME";
// without a nickname of its own it also answers to NAME, the name the user typed when creating it.
NameResolver devicesOf(const TonaviStatus& status, bool outputsOnly, std::string kind) {
    std::vector<NameResolver::Candidate> candidates;
    const std::string_view groupPrefix = OutputGroupIdentity::aggregateNamePrefix;
    for (const auto& device : status.devices) {
        if (outputsOnly && !device.isOutput)
            continue;
        std::string alias = device.nickname;
        if (alias.empty() && device.id.starts_with(OutputGroupIdentity::aggregateUIDPrefix) &&
            device.name.starts_with(groupPrefix))
            alias = device.name.substr(groupPrefix.size());
        candidates.push_back({device.id, device.name, std::move(alias)});
    }
    return NameResolver(std::move(kind), std::move(candidates));
}

} // namespace

NameResolver NameResolver::outputDevices(const TonaviStatus& status) {
    auto resolver = devicesOf(status, true, "output device");
    resolver.currentOutput_ = status.defaultOutputUID;
    return resolver;
}

NameResolver NameResolver::allDevices(const TonaviStatus& status) {
    auto resolver = devicesOf(status, false, "device");
    resolver.currentOutput_ = status.defaultOutputUID;
    return resolver;
}

NameResolver::Result NameResolver::resolve(std::string_view query) const {
    if (currentOutput_ && query == currentOutputWord) {
        if (currentOutput_->empty())
            return {std::nullopt, "there is no current output for " + std::string(currentOutputWord)};
        return {*currentOutput_, {}};
    }
    for (const auto& c : candidates_)
        if (c.id == query)
            return {c.id, {}};

    const std::string wanted = lower(query);
    const auto unique = [&](auto matches) -> std::optional<Result> {
        std::vector<const Candidate*> found;
        for (const auto& c : candidates_)
            if (matches(c))
                found.push_back(&c);
        if (found.empty())
            return std::nullopt;
        if (found.size() == 1)
            return Result{found.front()->id, {}};
        std::vector<std::string> labels;
        for (const auto* c : found)
            labels.push_back(label(*c));
        std::string error = "\"";
        error.append(query).append("\" names ").append(std::to_string(found.size())).append(" ");
        error.append(kind_).append("s: ").append(joined(labels)).append("; give the identifier instead");
        return Result{std::nullopt, error};
    };
    if (auto r = unique([&](const Candidate& c) { return lower(c.id) == wanted; }))
        return *r;
    if (auto r = unique([&](const Candidate& c) {
            return lower(c.name) == wanted || (!c.alias.empty() && lower(c.alias) == wanted);
        }))
        return *r;

    std::string error = "no " + kind_ + " matches \"" + std::string(query) + "\"";
    const auto close = suggestions(query);
    if (!close.empty())
        error += "; did you mean: " + joined(close) + "?";
    else
        error += " (tonavictl status lists them)";
    return {std::nullopt, error};
}

std::vector<std::string> NameResolver::suggestions(std::string_view query, std::size_t limit) const {
    const std::string wanted = lower(query);
    std::vector<std::tuple<std::size_t, std::string, std::string>> ranked; // closeness, lowered name, label
    for (const auto& c : candidates_) {
        std::vector<std::string> keys{lower(c.name), lower(c.alias), lower(c.id)};
        // A bundle identifier's last piece is what people remember: "music" for com.apple.Music.
        if (const auto dot = c.id.rfind('.'); dot != std::string::npos)
            keys.push_back(lower(c.id.substr(dot + 1)));
        std::optional<std::size_t> best;
        for (const auto& key : keys)
            if (const auto score = closeness(key, wanted); score && (!best || *score < *best))
                best = score;
        if (best)
            ranked.emplace_back(*best, lower(c.name), label(c));
    }
    std::sort(ranked.begin(), ranked.end());
    std::vector<std::string> out;
    for (const auto& entry : ranked) {
        if (out.size() == limit)
            break;
        out.push_back(std::get<2>(entry));
    }
    return out;
}

} // namespace tonavi
