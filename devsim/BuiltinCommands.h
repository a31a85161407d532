// The CLI commands the device answers itself, seeing only its root folder:
// echo, pwd, uname, ls and cat, with ';' or a line break between commands.
// Words split at blanks; quotes keep blanks in a word. Anything else is "not
// found": no pipes, redirections or variables, no program of the host's.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "devsim/CliCommand.h"

namespace ferrolt::devsim {

// Runs the command line at once; the result hands out its output. root is
// canonical.
std::unique_ptr<CliCommand> RunBuiltinCommands(const std::string& line, const std::filesystem::path& root);

}  // namespace ferrolt::devsim
