#include "audio/headphone/HeadphoneProfileParser.hpp"

#include "base/Encoding.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>

namespace kavore::HeadphoneProfileParser {

ParseError::ParseError(Kind kind, std::string line, const std::string& description)
    : std::runtime_error(description), kind_(kind), line_(std::move(line)) {}

ParseError ParseError::badLine(std::string line) {
    const std::string description = "cannot parse line: " + line;
    return ParseError(Kind::badLine, std::move(line), description);
}

ParseError ParseError::empty() {
    return ParseError(Kind::empty, {}, "no filters found in profile");
}

namespace {

constexpr double defaultQ = 0.707;

std::string_view trimSpacesAndTabs(std::string_view s) {
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    while (!s.empty() && isBlank(s.front())) {
        s.remove_prefix(1);
    }
    while (!s.empty() && isBlank(s.back())) {
        s.remove_suffix(1);
    }
    return s;
}

std::string lowercased(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

bool contains(std::string_view s, std::string_view part) {
    return s.find(part) != std::string_view::npos;
}

std::optional<ParametricFilter::Kind> filterKind(std::string_view line) {
    if (contains(line, " PK ")) {
        return ParametricFilter::Kind::peaking;
    }
    if (contains(line, " LSC ") || contains(line, " LS ")) {
        return ParametricFilter::Kind::lowShelf;
    }
    if (contains(line, " HSC ") || contains(line, " HS ")) {
        return ParametricFilter::Kind::highShelf;
    }
    return std::nullopt;
}

// The text after the last " ON ", where the numbers of a filter line live.
std::string_view afterLastOn(std::string_view line) {
    const auto at = line.rfind(" ON ");
    return at == std::string_view::npos ? line : line.substr(at + 4);
}

} // namespace

std::vector<double> numbers(std::string_view text) {
    std::vector<double> values;
    std::string token;
    const auto finish = [&] {
        if (!token.empty() && token != "-") {
            double value = 0.0;
            const char* first = token.data();
            const char* last = first + token.size();
            // from_chars is locale-independent: "." is always the decimal point.
            const auto [end, error] = std::from_chars(first, last, value);
            if (error == std::errc() && end == last) {
                values.push_back(value);
            }
        }
        token.clear();
    };
    for (const char c : text) {
        if ((c >= '0' && c <= '9') || c == '.') {
            token.push_back(c);
        } else if (c == '-' && token.empty()) {
            token.push_back(c);
        } else {
            finish();
        }
    }
    finish();
    return values;
}

HeadphoneProfile parse(std::string_view text, std::string name) {
    double preampDB = 0.0;
    std::vector<ParametricFilter> filters;

    std::size_t start = 0;
    while (start <= text.size()) {
        const auto newline = text.find('\n', start);
        const auto end = newline == std::string_view::npos ? text.size() : newline;
        const std::string_view line = trimSpacesAndTabs(text.substr(start, end - start));
        start = end + 1;

        if (line.empty() || line.front() == '#') {
            continue;
        }
        const std::string lower = lowercased(line);
        if (lower.starts_with("preamp:")) {
            const auto values = numbers(line);
            if (!values.empty()) {
                preampDB = values.front();
            }
            continue;
        }
        if (!lower.starts_with("filter")) {
            continue;
        }
        if (!contains(line, " ON ")) {
            continue; // a switched-off filter
        }
        const auto kind = filterKind(line);
        if (!kind) {
            throw ParseError::badLine(std::string(line));
        }
        const auto values = numbers(afterLastOn(line));
        if (values.size() < 2) {
            throw ParseError::badLine(std::string(line));
        }
        ParametricFilter filter;
        filter.kind = *kind;
        filter.freqHz = values[0];
        filter.gainDB = values[1];
        filter.q = values.size() >= 3 ? values[2] : defaultQ;
        filters.push_back(filter);
    }

    if (filters.empty()) {
        throw ParseError::empty();
    }
    HeadphoneProfile profile;
    profile.id = tonavi::makeUUID();
    profile.name = std::move(name);
    profile.preampDB = preampDB;
    profile.filters = std::move(filters);
    return profile;
}

} // namespace kavore::HeadphoneProfileParser
