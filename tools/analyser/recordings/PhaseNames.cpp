#include "recordings/PhaseNames.h"

#include <array>
#include <cctype>
#include <string>
#include <vector>

#include "recordings/TextParsing.h"

namespace tarnel::recordings {

namespace {

struct Naming {
    PhaseScheme scheme;
    std::array<const char*, 3> phases;
    std::array<const char*, 3> pairs;  // 1-2, 2-3, 3-1
    const char* alternativePairs[3];
};

constexpr Naming kNamings[] = {
    {PhaseScheme::Abc, {"A", "B", "C"}, {"AB", "BC", "CA"}, {nullptr, nullptr, nullptr}},
    {PhaseScheme::Rst, {"R", "S", "T"}, {"RS", "ST", "TR"}, {nullptr, nullptr, nullptr}},
    {PhaseScheme::L123, {"L1", "L2", "L3"}, {"L1L2", "L2L3", "L3L1"}, {"L12", "L23", "L31"}},
    {PhaseScheme::Digits, {"1", "2", "3"}, {"12", "23", "31"}, {nullptr, nullptr, nullptr}},
};

std::optional<PhaseId> lookUp(const std::string& id) {
    for (const Naming& naming : kNamings)
        for (int p = 0; p < 3; ++p) {
            if (id == naming.phases[p]) return PhaseId{naming.scheme, p + 1, false};
            if (id == naming.pairs[p] || (naming.alternativePairs[p] && id == naming.alternativePairs[p]))
                return PhaseId{naming.scheme, p + 1, true};
        }
    return std::nullopt;
}

std::vector<std::string> words(std::string_view name) {
    std::vector<std::string> result(1);
    for (char c : name) {
        if (std::isalnum(static_cast<unsigned char>(c)))
            result.back() += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        else if (!result.back().empty())
            result.emplace_back();
    }
    if (result.back().empty()) result.pop_back();
    return result;
}

bool isQuantityLetter(char c) { return c == 'V' || c == 'U' || c == 'I'; }

std::optional<PhaseId> phaseOfWord(const std::string& word) {
    if (word.size() > 1 && isQuantityLetter(word[0]))
        if (std::optional<PhaseId> id = phaseFromField(word.substr(1))) return id;
    return lookUp(word);
}

}  // namespace

std::optional<PhaseId> phaseFromField(std::string_view field) {
    std::string id;
    for (char c : field)
        if (std::isalnum(static_cast<unsigned char>(c)))
            id += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    // "AN", "L1N": phase to neutral is the phase itself.
    if (id.size() > 1 && id.back() == 'N') {
        std::optional<PhaseId> single = lookUp(id.substr(0, id.size() - 1));
        if (single && !single->lineToLine) return single;
    }
    return lookUp(id);
}

std::optional<PhaseId> phaseOfChannel(const ChannelInfo& channel) {
    if (std::optional<PhaseId> id = phaseFromField(channel.phase)) return id;
    for (const std::string& word : words(channel.name))
        if (std::optional<PhaseId> id = phaseOfWord(word)) return id;
    return std::nullopt;
}

ChannelKind kindFromName(std::string_view name) {
    for (const std::string& word : words(name)) {
        const bool quantityWithPhase = word.size() > 1 && isQuantityLetter(word[0]) && phaseFromField(word.substr(1));
        if (word == "U" || word == "V" || word == "VOLTAGE" || (quantityWithPhase && word[0] != 'I'))
            return ChannelKind::Voltage;
        if (word == "I" || word == "CURRENT" || (quantityWithPhase && word[0] == 'I')) return ChannelKind::Current;
    }
    return ChannelKind::Other;
}

}  // namespace tarnel::recordings
