// SPDX-License-Identifier: MIT

// What leaves something behind fails, and is told what.

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <map>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

namespace {

struct Leak
{
    /** The test that leaves it behind. */
    const char* test;
    std::string told;
};

// GoogleTest would print its bytes, padding included.
void PrintTo(const Leak& leak, std::ostream* out)
{
    *out << leak.test;
}

const std::vector<Leak> leaks = {
    {"Nothing", ""},
    {"Object", "QBuffer"},
    {"Timer", "running timers"},
    {"StringList", "blocks of Avahi's memory, string lists among them"},
    {"AvahiText", "blocks of Avahi's memory, string lists among them"},
    {"AvahiClearedMemory", "blocks of Avahi's memory, string lists among them"},
    {"AvahiGrownMemory", "blocks of Avahi's memory, string lists among them"},
    {"Descriptor", "file descriptors"},
    {"Thread", "threads"},
};

struct Outcome
{
    int status;
    std::string output;
};

FILE* start(const std::string& test)
{
    // The leak detector of the sanitizer would tell of them, too.
    return popen(("ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0 exec " VD_LEAKING " --gtest_filter=LeakingTest."
                  + test + " 2>&1")
                     .c_str(),
                 "re");
}

Outcome outcomeOf(FILE* child)
{
    std::string output;
    char bytes[4096];
    while (const std::size_t size = std::fread(bytes, 1, sizeof bytes, child))
        output.append(bytes, size);
    return {pclose(child), output};
}

std::vector<std::string> toldIn(const std::string& output)
{
    static const std::regex line("\n(.+) left behind");
    std::vector<std::string> told;
    for (auto next = std::sregex_iterator(output.begin(), output.end(), line); next != std::sregex_iterator();
         ++next)
        told.push_back(next->str(1));
    return told;
}

class LeakCheckTest : public testing::TestWithParam<Leak>
{
protected:
    /** Side by side, as each that leaves something waits whether it goes. */
    static void SetUpTestSuite()
    {
        std::map<std::string, FILE*> children;
        for (const Leak& leak : leaks)
            children[leak.test] = start(leak.test);
        for (const auto& [test, child] : children)
            s_outcomes[test] = outcomeOf(child);
    }

    const Outcome& outcome() const { return s_outcomes[GetParam().test]; }

private:
    static inline std::map<std::string, Outcome> s_outcomes;
};

INSTANTIATE_TEST_SUITE_P(EveryKind, LeakCheckTest, testing::ValuesIn(leaks),
                         [](const auto& parameter) { return std::string(parameter.param.test); });

} // namespace

TEST_P(LeakCheckTest, TellsWhatWasLeftBehindAndNothingElse)
{
    const bool isLeaking = !GetParam().told.empty();
    EXPECT_EQ(toldIn(outcome().output),
              isLeaking ? std::vector<std::string>{GetParam().told} : std::vector<std::string>())
        << outcome().output;
    ASSERT_TRUE(WIFEXITED(outcome().status));
    EXPECT_EQ(WEXITSTATUS(outcome().status), isLeaking ? 1 : 0) << outcome().output;
}
