#pragma once
// Starting the programs a benchmark measures or needs (an X server, a bus, Plim itself).

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char** environ;

namespace plim::bench {

// Starts `argv` (searched on PATH) with standard input from /dev/null and standard output
// and error written afresh to the files given; -1 when it cannot start.
inline pid_t spawn(const std::vector<std::string>& argv, const std::string& out = "/dev/null",
    const std::string& err = "/dev/null")
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

} // namespace plim::bench
