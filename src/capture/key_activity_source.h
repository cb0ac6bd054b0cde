#pragma once
// How long ago a key last went down anywhere in the session: the cursor recorder marks a
// sample as typing (`k`) when that is under 1/30 s.
//
// Backends: an X11 backend (the keyboard watch behind the key source, made by its
// create...() factory returning Result<std::unique_ptr<KeyActivitySource>>), and on Wayland
// the libinput backend (capture/linux_input/); tests use the scripted stand-in in
// tests/testing/. Without a backend the recorder writes k = 0.
//
// Threads: secondsSinceLastKeyDown() comes from the recorder's poll thread, 60 times a
// second, and must not block; key events arrive on the backend's own thread, so the
// backend guards what they share. Timing: accurate to the backend's event delivery, a few
// milliseconds. Ownership: borrowed by the recorder, kept alive by its maker until the
// recorder has stopped.

namespace plim {

class KeyActivitySource {
public:
    virtual ~KeyActivitySource() = default;

    // Seconds since the last key went down; a large value (or infinity) when no key has
    // gone down yet. Required.
    virtual double secondsSinceLastKeyDown() = 0;
};

} // namespace plim
