#pragma once
// plimctl commands for the suite's shared history and recording beacon.

#include <iosfwd>
#include <string>
#include <vector>

namespace plim {

// plimctl moments [--app SLUG]... [--kind KIND]... [--entity NAME [--entity-type TYPE]]
//                 [--from INSTANT] [--to INSTANT] [--sensitive] [--all] [--json] [--graph FOLDER]
// Prints the merged history, oldest first and newest last, one moment a line (or a
// JSON array with --json). Skipped lines are named on `err`.
int runMomentsCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// plimctl beacon post STATE [--app SLUG] [--bus ADDRESS]
// plimctl beacon watch [SLUG] [--check-every SECONDS] [--bus ADDRESS]
// Posts a recording state, or prints each state an app announces until SIGINT/SIGTERM.
int runBeaconCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace plim
