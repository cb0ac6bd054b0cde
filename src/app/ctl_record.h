#pragma once
// plimctl record: records a display, a window or an area into a new plim.

#include <iosfwd>
#include <string>
#include <vector>

namespace plim {

// plimctl record [--display NAME | --window ID | --pick-window | --area X,Y,W,H]
//                [--x-display :N] [--mic [--mic-device NAME]] [--system-sound [--sound-device SINK]]
//                [--camera [--camera-device PATH]] [--no-keys] [--quality native|2160p|1440p|1080p|720p]
//                [--fps 30|60] [--countdown SECONDS] [--duration SECONDS] [--library FOLDER]
// Stops after --duration, on Ctrl-C (SIGINT) or SIGTERM, and always finalises the plim.
// While rolling: SIGUSR1 or the key p pauses and resumes, SIGUSR2 or the key m sets a
// mark, q stops. The elapsed time goes to standard error; the plim's path to standard
// output.
int runRecordCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace plim
