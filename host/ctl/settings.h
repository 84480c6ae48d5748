// Thresholds and switches of a daemon, by name: "cpu.begins-at", "health.disk.limit".
#pragma once

#include <span>
#include <string>
#include <vector>

#include "host/ctl/server.h"
#include "host/describe/json.h"

namespace ctl {

// What one method sets: what is in force, as the request that would set it.
struct Setting {
    const host::describe::Method *method;
    host::describe::Json request; // the wire's
    std::string source;           // whose it is
    bool isStated = false;        // anew, so it has to be sent: also what stays the same is the client's then
};

// Of what a daemon's "Settings" tells, those that are known here.
std::vector<Setting> SettingsIn(const host::describe::Json &told);
std::vector<Setting> AskSettings(Server &server);

// A setting for people, and for programs.
struct SettingRow {
    std::string name, value, source, meaning;
    host::describe::Json json;
};
std::vector<SettingRow> RowsOf(const std::vector<Setting> &settings);

// Takes "cpu.begins-at=90%" and the like; what isn't stated stays as it is, unless that is above what bounds it and the
// daemon has a value for that: where an overload begins below its old end, it ends where it begins. Throws Failure for
// one that there is not, or a value that is not accepted.
void Change(std::vector<Setting> &settings, std::span<const std::string> words);

// The same for words whose names no daemon has, before one is asked.
void RequireSettings(std::span<const std::string> words);

// "cpu.begins-at=" for each setting; or those with the values that it can have, behind its name.
std::vector<std::string> SettingWords(const std::string &word);

} // namespace ctl
