// Plim Camera through v4l2loopback: each live frame converted and written to the device
// labelled "Plim Camera".

#include "live/camera_sink_state.h"
#include "live/camera_sinks.h"

#include <vector>

namespace plim {

namespace {

std::string troubleSentence(const LoopbackTrouble& trouble, const std::string& label)
{
    const std::string load = loopbackLoadCommand(label);
    switch (trouble.kind) {
    case LoopbackTrouble::Kind::notInstalled:
        return label + " is not installed. Load it once with " + load
            + " (from the v4l2loopback-dkms package), and every video app gains a camera named Plim.";
    case LoopbackTrouble::Kind::loadedWithoutLabel:
        return label + " is not installed: v4l2loopback is loaded without it. Load it once with sudo modprobe -r "
            "v4l2loopback && " + load + ", and every video app gains a camera named Plim.";
    case LoopbackTrouble::Kind::notAnOutput:
        return label + " is installed but its inbox is missing — an old version may still be running. "
            "Restart the computer to finish the update.";
    case LoopbackTrouble::Kind::denied:
        return "Plim may not write to " + label + " (" + trouble.detail + "). Add yourself to the video group "
            "(sudo usermod -aG video $USER), log in again, then go live again.";
    case LoopbackTrouble::Kind::failed:
        break;
    }
    return label + " refused its frame queue (" + trouble.detail + "). Restarting the computer usually clears this.";
}

class V4l2LoopbackSink final : public LiveSink {
public:
    V4l2LoopbackSink(CameraSinkOptions options, std::unique_ptr<LoopbackDevice> device)
        : m_options(std::move(options))
        , m_clock(m_options.clock ? *m_options.clock : UptimeClock::shared())
        , m_device(std::move(device))
        , m_state(m_options.label + " is not taking frames — the v4l2loopback device has stopped pulling. "
              "Stop and go live again; if it persists, restart the computer.")
    {
    }

    ~V4l2LoopbackSink() override { m_device->close(); }

    std::string name() const override { return m_options.label + " (v4l2loopback)"; }

    void consume(const LiveFrame& frame) override
    {
        m_state.open();
        if (!m_format && !frame.image.isEmpty() && m_state.mayConnect(m_clock.uptime()))
            connect(frame);
        if (!m_format) {
            m_state.dropped();
            return;
        }
        auto picture = m_fitter.fit(frame.image, m_format->width, m_format->height);
        if (!picture || !writeCameraFrame(*picture, *m_format, m_buffer)) {
            m_state.dropped();
            return;
        }
        switch (m_device->write(m_buffer)) {
        case LoopbackDevice::Write::taken:
            m_state.taken();
            break;
        case LoopbackDevice::Write::refused:
            m_state.refused();
            break;
        case LoopbackDevice::Write::lost:
            m_state.refused();
            disconnect();
            break;
        }
    }

    LiveSinkHealth health() const override { return m_state.health(); }

    void close() override
    {
        disconnect();
        m_state.close();
    }

private:
    void connect(const LiveFrame& frame)
    {
        if (auto opened = m_device->open(m_options.label); !opened) {
            m_state.failed(troubleSentence(opened.error(), m_options.label));
            return;
        }
        const double rate = frame.duration > 0 ? 1 / frame.duration : 60;
        auto format = negotiateCameraFormat(frame.image.width, frame.image.height, rate,
            [&](const CameraFormat& wanted) -> Result<CameraFormat> {
                auto answer = m_device->setFormat(wanted);
                if (!answer)
                    return fail(m_options.label + " would not start its inbox (error " + std::to_string(answer.error())
                        + "). Quit the apps using the camera, then go live again; a restart clears it if not.");
                return *answer;
            });
        if (!format) {
            m_device->close();
            m_state.failed(format.error().sentence);
            return;
        }
        m_format = *format;
        m_buffer.assign(static_cast<size_t>(format->frameBytes), 0);
        m_state.connected();
    }

    void disconnect()
    {
        m_device->close();
        m_format.reset();
    }

    CameraSinkOptions m_options;
    const Clock& m_clock;
    std::unique_ptr<LoopbackDevice> m_device;
    CameraSinkState m_state;
    // Used only by consume() and close(), which never run at once.
    std::optional<CameraFormat> m_format;
    std::vector<uint8_t> m_buffer;
    FrameFitter m_fitter;
};

} // namespace

std::unique_ptr<LiveSink> makeV4l2LoopbackSink(CameraSinkOptions options, std::unique_ptr<LoopbackDevice> device)
{
    if (!device)
        device = LoopbackDevice::system();
    return std::make_unique<V4l2LoopbackSink>(std::move(options), std::move(device));
}

std::vector<std::shared_ptr<LiveSink>> availableCameraSinks(CameraSinkOptions options, LoopbackPlaces places)
{
    std::vector<std::shared_ptr<LiveSink>> sinks;
    if (pipeWireAnswers())
        sinks.push_back(makePipeWireCameraSink(options));
    if (sinks.empty() || !videoDevicesLabelled(places.videoClass, options.label).empty())
        sinks.push_back(makeV4l2LoopbackSink(options, LoopbackDevice::system(places)));
    return sinks;
}

} // namespace plim
