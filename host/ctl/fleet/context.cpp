// context: which fleet's server is asked, and as whom.
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "host/ctl/fleet/fleet.h"
#include "host/ctl/listing.h"
#include "host/ctl/tasks/tasks.h"
#include "host/describe/types.h"
#include "host/fleet/settings_file.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::vector<std::string> words;
    ListOptions list;
};

std::filesystem::path Directory() {
    const auto named = [](const char *variable) {
        const char *const value = getenv(variable);
        return std::filesystem::path(value == nullptr ? "" : value);
    };
    const std::filesystem::path config = named("XDG_CONFIG_HOME");
    return (config.empty() ? named("HOME") / ".config" : config) / "tarn";
}

std::filesystem::path FileOf(const std::string &context) {
    return Directory() / "contexts" / context;
}

std::filesystem::path FileOfTheOneInUse() {
    return Directory() / "context";
}

// Empty for none.
std::string ContextInUse() {
    std::ifstream in(FileOfTheOneInUse());
    std::string name;
    std::getline(in, name);
    return name;
}

fleet::Account AccountOf(const Globals &globals) {
    fleet::Account account;
    if (!globals.fleet.empty()) {
        account.url = globals.fleet;
        account.Check();
        return account;
    }
    const std::string context = ContextInUse();
    if (context.empty()) {
        throw Failure(kUsage, "no fleet: expected --fleet URL, or a context in use (tarnctl help context)");
    }
    fleet::SettingsFile file = fleet::SettingsFile::Load(FileOf(context));
    account = file.TakeAccount();
    file.ExpectNothingElse();
    return account;
}

fleet::ConnectionOptions OptionsOf(const Globals &globals) {
    fleet::ConnectionOptions options;
    try {
        options.account = AccountOf(globals);
    } catch (const Failure &) {
        throw;
    } catch (const std::exception &error) { // the file, or what it says
        throw Failure(kUsage, error.what());
    }
    options.name = "tarnctl";
    options.onError = [](const std::string &what) {
        std::cerr << fmt::format("tarnctl: the fleet's server: {}\n", what);
    };
    return options;
}

void List(const ListOptions &options) {
    const std::string inUse = ContextInUse();
    Listing listing(options, {"context", "in-use"});
    for (const std::string &name : Contexts()) {
        listing.Add({name, name == inUse ? "yes" : "no"}, {{"context", name}, {"in_use", name == inUse}});
    }
    listing.Show(fmt::format("no context: expected a file {}", FileOf("NAME").string()));
}

void Use(const std::string &name) {
    const std::vector<std::string> names = Contexts();
    if (std::ranges::count(names, name) == 0) {
        throw Failure(kUsage, fmt::format("{}: no such context, expected a file {}{}", name, FileOf("NAME").string(),
                                          host::describe::DidYouMean(name, {names.begin(), names.end()})));
    }
    std::ofstream out(FileOfTheOneInUse());
    if (!(out << name << std::endl)) {
        throw Failure(kOther, fmt::format("{}: cannot write", FileOfTheOneInUse().string()));
    }
}

void Run(const Options &options) {
    const std::vector<std::string> &words = options.words;
    if (words.empty() || (words.size() == 1 && words[0] == "list")) {
        List(options.list);
    } else if (words[0] == "use" && words.size() == 2) {
        Use(words[1]);
    } else {
        throw Failure(kUsage, fmt::format("found {}, expected list, or use NAME", words[0]));
    }
}

} // namespace

std::vector<std::string> Contexts() {
    std::vector<std::string> names;
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator(Directory() / "contexts", none)) {
        names.push_back(entry.path().filename().string());
    }
    std::ranges::sort(names);
    return names;
}

Fleet::Fleet(const Globals &globals) try : connection_(OptionsOf(globals)), caller_(connection_, fleet::OwnName()) {
} catch (const fleet::Error &error) {
    throw Failure(kConnection, error.what());
}

void AddContext(const Command &program) {
    const auto options = std::make_shared<Options>();
    const Command task =
        program.Add("context", "Which fleet is asked where --fleet names none", {"context", "context use plant-7"});
    task.Operand("WHAT", options->words,
                 "\"list\", as if nothing is given; \"use\" with the name of a file of settings in "
                 "~/.config/tarn/contexts, from now on");
    AddListOptions(task, options->list);
    task.Run([options] { Run(*options); });
}

} // namespace ctl
