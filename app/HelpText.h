// The list of commands that "-h" prints.
#pragma once

namespace ferrolt {

void PrintHelp();

}  // namespace ferrolt
