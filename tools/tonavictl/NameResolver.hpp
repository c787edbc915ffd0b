#pragma once
// Turns what a user types for an application or a device into its identifier: the identifier itself
// (a bundle identifier or a device UID), or a name in any case. A word that names nothing, or more than
// one thing, gets an error that lists the candidates a user most likely meant.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi {

struct TonaviStatus;

class NameResolver {
  public:
    struct Candidate {
        std::string id;
        std::string name;
        std::string alias; // a device's nickname; empty when there is none
    };

    struct Result {
        std::optional<std::string> id;
        std::string error; // set when id is absent
    };

    // kind is the word used in messages: "application", "device".
    NameResolver(std::string kind, std::vector<Candidate> candidates);

    // The applications of a status, by bundle identifier and display name.
    static NameResolver applications(const TonaviStatus& status);
    // The output devices of a status, by UID, name and nickname; an output group also by the name
    // the user gave it. "@default" is the current output.
    static NameResolver outputDevices(const TonaviStatus& status);
    // Every device of a status, inputs too, the same way.
    static NameResolver allDevices(const TonaviStatus& status);
    // The word that stands for the current output wherever a device is taken.
    static constexpr std::string_view currentOutputWord = "@default";

    // "@default" (when the resolver knows the current output), exact identifier, then identifier
    // ignoring case, then name or alias ignoring case.
    Result resolve(std::string_view query) const;

    // Up to `limit` candidates close to the query, closest first, as "Name (id)": those whose name,
    // alias or identifier starts with or contains the query, or is a few edits away from it.
    std::vector<std::string> suggestions(std::string_view query, std::size_t limit = 5) const;

  private:
    std::string kind_;
    std::vector<Candidate> candidates_;
    std::optional<std::string> currentOutput_; // set for devices: the status's default output UID
};

// Levenshtein distance over bytes.
std::size_t editDistance(std::string_view a, std::string_view b);

} // namespace tonavi
