#pragma once
// The demo plim, made with Plim's own code for trying it without recording: about 20 s of
// a synthetic desktop (a note being typed, a file list scrolling, a "saved" notice) at
// 60 fps, with speech from espeak-ng as its sound, a cursor track that travels, rests and
// clicks in three clusters over the things that change, and a keystroke track with
// shortcuts.

#include "base/error.h"
#include "base/image.h"

#include <filesystem>
#include <functional>

namespace plim {

struct DemoOptions {
    int width = 2560;  // the picture; the display is 1280 × 800 points at width / 1280
    int height = 1600;
    double fps = 60;
    double seconds = 0; // only the first seconds of the demo; 0 for all of it
    bool sound = true; // speech when espeak-ng is installed
    const char* preset = "ultrafast";
};

// Calls `frame` with each picture of the demo movie and its time, in order.
Status drawDemoFrames(const DemoOptions& options, const std::function<Status(const Image&, double)>& frame);

// Writes <folder>/Demo.mov with Demo.cursor.json and Demo.keys.json (the folder is
// created; files of an earlier demo are replaced) and returns the movie's path. Without
// espeak-ng the movie is silent and a notice is logged.
Result<std::filesystem::path> writeDemoPlim(const std::filesystem::path& folder, const DemoOptions& options = {});

} // namespace plim
