#pragma once
// A camera's pictures with their capture instants on the uptime clock (CLOCK_MONOTONIC).
// The Video4Linux2 backend (camera_source_v4l2.cpp) reads MJPEG or YUYV through libv4l2;
// tests/testing/ has a scripted stand-in that makes pictures where no camera exists.
//
// Contract: create() opens the device and fixes the picture size, or fails with a
// sentence (the caller logs it and records without the camera). start() delivers frames
// on the source's own thread; the handler must return quickly and owns the pictures it
// gets. stop() may be called from any thread but the source's; when it returns no handler
// runs and none will.

#include "base/error.h"
#include "base/image.h"
#include "capture/screen_source.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace plim {

class CameraSource {
public:
    using FrameHandler = std::function<void(CapturedFrame&&)>;
    virtual ~CameraSource() = default;
    virtual std::string deviceName() const = 0;
    virtual int width() const = 0;
    virtual int height() const = 0;
    virtual double framesPerSecond() const = 0;
    virtual Status start(FrameHandler onFrame) = 0;
    virtual void stop() = 0;
};

// /dev/video0 unless a device path is given.
Result<std::unique_ptr<CameraSource>> createV4l2CameraSource(const std::optional<std::string>& device = std::nullopt);

} // namespace plim
