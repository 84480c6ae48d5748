// The manual pages name the commands and options that the programs have, and no others.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

namespace {

using Names = std::set<std::string>;

std::string OutputOf(const std::string &command) {
    std::string output;
    FILE *const pipe = popen(command.c_str(), "r");
    std::array<char, 4096> part{};
    for (size_t size; (size = fread(part.data(), 1, part.size(), pipe)) > 0;) {
        output.append(part.data(), size);
    }
    EXPECT_EQ(pclose(pipe), 0) << command << ": " << output;
    return output;
}

Names MatchesOf(const std::string &text, const char *pattern) {
    const std::regex regex(pattern, std::regex::multiline);
    Names names;
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at) {
        names.insert((*at)[1]);
    }
    return names;
}

// The options of a program or a command, as its help lists them.
Names OptionsOf(const std::string &command) {
    Names options = MatchesOf(OutputOf(command + " --help"), "^ +(--?[a-z][a-z-]*)");
    options.erase("-h"); // every program has it
    return options;
}

// The options that a page, or the section of a command, has an entry for.
Names EntriesOf(const std::string &page) {
    Names options;
    for (const std::string &name : MatchesOf(page, "^\\.It Fl ([a-z-]+)")) {
        options.insert("-" + name);
    }
    return options;
}

std::string Page(const std::string &name) {
    std::ifstream file(std::string(MANUALS) + "/" + name);
    return {std::istreambuf_iterator<char>(file), {}};
}

// What help says of defaults is what the options are set to; a page says the same.
void ExpectDefaults(const std::string &page, const std::string &help) {
    const std::regex regex("^ +-(-?[a-z][a-z-]*) .*(?:\\[|default )([^ \n\\]{}$]+)\\]?$", std::regex::multiline);
    for (std::sregex_iterator at(help.begin(), help.end(), regex), end; at != end; ++at) {
        const size_t entry = page.find(".It Fl " + (*at)[1].str() + " ");
        ASSERT_NE(entry, page.npos) << at->str();
        EXPECT_LT(page.find((*at)[2].str(), entry), page.find("\n.It", entry + 1)) << at->str();
    }
}

TEST(Manual, NamesTheDefaultsThatHelpNames) {
    const std::string daemon = OutputOf(TARND " --help");
    EXPECT_NE(daemon.find("[1000]"), daemon.npos) << daemon;
    ExpectDefaults(Page("tarnd.8"), daemon);
    ExpectDefaults(Page("tarn-master.8"), OutputOf(TARN_MASTER " --help"));
    ExpectDefaults(Page("tarn-web.8"), OutputOf(TARN_WEB " --help"));
    ExpectDefaults(Page("tarn-agent.1"), OutputOf(TARN_AGENT " --help"));
    for (const char *command : {"call", "top"}) {
        const std::string page = Page("tarnctl.1");
        ExpectDefaults(page.substr(page.find(std::string("\n.Ss ") + command)),
                       OutputOf(std::string(TARNCTL " ") + command + " --help"));
    }
}

TEST(Manual, NamesTheCommandsOfTarnctlWithTheirOptions) {
    const std::string page = Page("tarnctl.1");
    const std::string help = OutputOf(std::string(TARNCTL) + " --help");
    const size_t options = page.find(".Sh OPTIONS");
    EXPECT_EQ(EntriesOf(page.substr(options, page.find(".Sh COMMANDS") - options)), OptionsOf(TARNCTL));
    const Names commands = MatchesOf(help.substr(help.find("Subcommands:")), "^  ([a-z]+)  ");
    ASSERT_GT(commands.size(), 5u) << help;
    EXPECT_EQ(MatchesOf(page, "^\\.Ss ([a-z]+)"), commands);
    for (const std::string &command : commands) {
        const size_t begin = page.find("\n.Ss " + command);
        const size_t end = page.find("\n.S", begin + 1);
        EXPECT_EQ(EntriesOf(page.substr(begin, end - begin)), OptionsOf(TARNCTL " " + command)) << command;
    }
}

TEST(Manual, NamesTheExitCodesOfTarnctl) {
    const std::string help = OutputOf(TARNCTL " --help");
    const std::string page = Page("tarnctl.1");
    EXPECT_EQ(MatchesOf(page, "^\\.It ([0-9])$"), MatchesOf(help, "^  ([0-9])  "));
}

TEST(Manual, NamesTheOptionsOfTheOtherPrograms) {
    EXPECT_EQ(EntriesOf(Page("tarnd.8")), OptionsOf(TARND));
    EXPECT_EQ(EntriesOf(Page("tarn-master.8")), OptionsOf(TARN_MASTER));
    EXPECT_EQ(EntriesOf(Page("tarn-relay.8")), OptionsOf(TARN_RELAY));
    EXPECT_EQ(EntriesOf(Page("tarn-web.8")), OptionsOf(TARN_WEB));
    EXPECT_EQ(EntriesOf(Page("tarn-core.8")), OptionsOf(TARN_CORE));
    EXPECT_EQ(EntriesOf(Page("tarn-agent.1")), OptionsOf(TARN_AGENT));
}

TEST(Manual, NamesTheDebugCommandsOfTheExample) {
    const Names named = MatchesOf(Page("tarn-agent.1"), "^\\.It Ic ([a-z]+)");
    std::ifstream source(AGENT_SOURCE);
    const std::string text{std::istreambuf_iterator<char>(source), {}};
    EXPECT_EQ(named, MatchesOf(text, "TarnAgent_RegisterCommand\\(\"([a-z]+)\""));
}

TEST(Manual, IsWellFormed) {
    for (const char *page :
         {"tarnctl.1", "tarn-agent.1", "tarnd.8", "tarn-core.8", "tarn-master.8", "tarn-relay.8", "tarn-web.8"}) {
        EXPECT_EQ(OutputOf(std::string("mandoc -T lint -W warning " MANUALS "/") + page), "");
    }
}

} // namespace
