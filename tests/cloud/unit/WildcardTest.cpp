#include "Wildcard.h"

#include <gtest/gtest.h>

using zarnu::cloud::wildcardMatch;

TEST(Wildcard, MatchesStarsAndQuestionMarks) {
    struct Case {
        const char* pattern;
        const char* name;
        bool match;
    };
    const Case cases[] = {
        {"*", "", true},           {"*", "anything", true},      {"*.txt", "a.txt", true},
        {"*.txt", "a.txt.bak", false}, {"a*b*c", "aXbYc", true},  {"a*b*c", "abcabc", true},
        {"a*b*c", "acb", false},   {"?", "", false},             {"?", "x", true},
        {"??", "x", false},        {"a?c", "abc", true},         {"a?c", "ac", false},
        {"*a", "aaaa", true},      {"*ab", "aaab", true},        {"**x", "x", true},
        {"abc", "abc", true},      {"abc", "abd", false},        {"abc", "ABC", false},
        {"?", "\xC3\xA9", true},   {"??", "\xC3\xA9", false},    {"*\xC3\xA9", "caf\xC3\xA9", true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(wildcardMatch(c.pattern, c.name), c.match) << c.pattern << " vs " << c.name;
}

TEST(Wildcard, PathologicalPatternFinishesQuickly) {
    std::string name(5000, 'a');
    std::string pattern;
    for (int i = 0; i < 50; ++i) pattern += "*a";
    pattern += "b";
    EXPECT_FALSE(wildcardMatch(pattern, name));
}
