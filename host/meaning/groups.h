// The groups of methods by name, as policies write them.
#pragma once

#include <optional>
#include <string_view>

#include "host/meaning/group.h"

namespace host {

std::string_view NameOf(Group group);
std::optional<Group> GroupNamed(std::string_view name);

// Whether it is a method of the runtime's own service.
bool IsOwnMethod(std::string_view method);

// A method that is in no list does anything, so it is a command.
Group GroupOf(std::string_view method);

} // namespace host
