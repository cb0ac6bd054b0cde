#pragma once
// Plim Camera on Linux: the live picture as a camera that video apps can pick, through two
// live sinks (live_sink.h has their threading contract).
//
// - PipeWire: a video source node (media.class Video/Source) named after the label, for
//   PipeWire-aware apps (browsers through the camera portal, GStreamer). It offers BGRx and
//   BGRA, and YUY2 and NV12 for readers that take only YUV (browsers' WebRTC), at the canvas
//   size or another size a consumer asks for, which the picture is fitted into. Frames are
//   copied into a free PipeWire buffer without waiting; with none free (the consumer is
//   behind) the frame is dropped.
// - v4l2loopback: the video device whose card label is the label, for apps that only know
//   V4L2; frames are converted to YUYV (or NV12, when the device insists).
//
// Both connect on the first frame, and again at most every 2 s while they cannot, counting
// the frames meanwhile as dropped. Their health: idle until the first frame; failed with a
// sentence that says what to do while they cannot connect; opening until a frame is
// taken; running with the frames dropped; failed when the device refuses 120 frames in a
// row after taking some (one taken frame ends that). Closing goes back to idle, and the next
// frame opens the sink again. Failures are never thrown: they show in health().

#include "base/clock.h"
#include "live/live_sink.h"
#include "live/loopback_device.h"

#include <memory>
#include <string>
#include <vector>

namespace plim {

struct CameraSinkOptions {
    std::string label = "Plim Camera";
    // Uptime for the pace of connecting; the system's when not set.
    const Clock* clock = nullptr;
};

std::unique_ptr<LiveSink> makePipeWireCameraSink(CameraSinkOptions options = {});

// `device` plays the loopback device; the system's when not given.
std::unique_ptr<LiveSink> makeV4l2LoopbackSink(CameraSinkOptions options = {}, std::unique_ptr<LoopbackDevice> device = nullptr);

// Whether a PipeWire server answers this process now (PIPEWIRE_REMOTE, else the runtime
// folder's socket). Blocks for the connection attempt only.
bool pipeWireAnswers();

// The camera sinks to go live into: PipeWire's when a server answers, v4l2loopback's when
// a device has the label. With neither, the v4l2loopback sink, whose health says how to
// load the module.
std::vector<std::shared_ptr<LiveSink>> availableCameraSinks(CameraSinkOptions options = {}, LoopbackPlaces places = {});

} // namespace plim
