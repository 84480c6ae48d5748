// What the commands on the interface share.
#pragma once

#include "host/ctl/commands.h"

namespace ctl {

// What both list and describe say of a method.
host::describe::Json MethodJson(const host::describe::Method &method);

std::string_view ResponseName(const host::describe::Method &method); // "(no reply)" where there is none

// Of a text of several.
std::string_view FirstSentence(std::string_view text);

void DescribeMethod(const host::describe::Method &method, View view, bool json);
void DescribeType(const host::describe::Type &type, View view, bool json);

} // namespace ctl
