// Reads the devices of libinput's udev seat on a thread of its own and hands their events
// to the tracker as InputEvents.

#include "capture/linux_input/input_libinput.h"

#include "base/log.h"
#include "capture/linux_input/input_events.h"

#include <fcntl.h>
#include <libinput.h>
#include <libudev.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <thread>

namespace plim {

namespace {

std::string groupSentence(const fs::path& folder)
{
    return "Plim may not read the input devices in " + folder.string()
        + ", so this recording rolls on without clicks and keys. To record them, add your user to the input "
          "group (sudo usermod -aG input $USER) and log in again.";
}

class LibinputInputs {
public:
    explicit LibinputInputs(std::unique_ptr<InputTracker> tracker)
        : m_tracker(std::move(tracker)), clicks(m_tracker->clickHandlers()), keys(m_tracker->keyHandlers())
    {
    }
    ~LibinputInputs()
    {
        if (m_thread.joinable()) {
            m_thread.request_stop();
            uint64_t one = 1;
            (void)!::write(m_wake, &one, sizeof one);
            m_thread.join();
        }
        if (m_libinput)
            libinput_unref(m_libinput);
        if (m_udev)
            udev_unref(m_udev);
        if (m_wake >= 0)
            ::close(m_wake);
    }
    LibinputInputs(const LibinputInputs&) = delete;
    LibinputInputs& operator=(const LibinputInputs&) = delete;

    Status open(const fs::path& folder)
    {
        m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        m_udev = udev_new();
        if (m_wake < 0 || !m_udev)
            return fail("Plim could not watch the input devices (udev did not answer), so this recording rolls on "
                        "without clicks and keys.",
                Error::Kind::refused);
        m_libinput = libinput_udev_create_context(&interface, this, m_udev);
        if (!m_libinput)
            return fail("Plim could not start libinput, so this recording rolls on without clicks and keys.",
                Error::Kind::refused);
        libinput_log_set_handler(m_libinput, &logMessage);
        if (libinput_udev_assign_seat(m_libinput, "seat0") != 0)
            return fail("libinput could not list the input devices of seat0, so this recording rolls on without "
                        "clicks and keys.",
                Error::Kind::refused);
        drain();
        if (m_devices == 0 && m_refused > 0)
            return fail(groupSentence(folder), Error::Kind::refused);
        if (m_devices == 0)
            logLine(LogArea::devices, "libinput found no input device on seat0 yet; devices plugged in later are read");
        m_thread = std::jthread([this](std::stop_token stop) { run(stop); });
        return {};
    }

    InputTracker& tracker() { return *m_tracker; }

private:
    std::unique_ptr<InputTracker> m_tracker;

public:
    HandlersSource<ClickSource, ClickSource::Press> clicks;
    HandlersSource<KeySource, KeyPress> keys;

private:
    static int openRestricted(const char* path, int flags, void* data)
    {
        int fd = ::open(path, flags | O_CLOEXEC);
        if (fd >= 0)
            return fd;
        int error = errno;
        if (error == EACCES || error == EPERM)
            ++static_cast<LibinputInputs*>(data)->m_refused;
        return -error;
    }
    static void closeRestricted(int fd, void*) { ::close(fd); }
    static constexpr libinput_interface interface{&openRestricted, &closeRestricted};

    static void logMessage(libinput*, libinput_log_priority, const char* format, va_list args)
    {
        char line[512];
        std::vsnprintf(line, sizeof line, format, args);
        std::string text(line);
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
        logLine(LogArea::devices, "libinput: " + text);
    }

    void run(std::stop_token stop)
    {
        pthread_setname_np(pthread_self(), "plim.libinput");
        pollfd fds[2] = {{libinput_get_fd(m_libinput), POLLIN, 0}, {m_wake, POLLIN, 0}};
        while (!stop.stop_requested()) {
            if (::poll(fds, 2, -1) < 0 && errno != EINTR)
                break;
            if (fds[1].revents)
                break;
            drain();
        }
    }

    void drain()
    {
        libinput_dispatch(m_libinput);
        while (libinput_event* event = libinput_get_event(m_libinput)) {
            translate(event);
            libinput_event_destroy(event);
        }
    }

    void translate(libinput_event* event)
    {
        libinput_device* device = libinput_event_get_device(event);
        InputEvent e;
        auto type = libinput_event_get_type(event);
        if (type == LIBINPUT_EVENT_DEVICE_ADDED) {
            libinput_device_set_user_data(device, reinterpret_cast<void*>(uintptr_t(++m_lastDevice)));
            ++m_devices;
        }
        e.device = uint32_t(reinterpret_cast<uintptr_t>(libinput_device_get_user_data(device)));
        switch (type) {
        case LIBINPUT_EVENT_DEVICE_ADDED:
            e.kind = InputEvent::Kind::added;
            break;
        case LIBINPUT_EVENT_DEVICE_REMOVED:
            e.kind = InputEvent::Kind::removed;
            break;
        case LIBINPUT_EVENT_KEYBOARD_KEY: {
            auto* key = libinput_event_get_keyboard_event(event);
            e.kind = InputEvent::Kind::key;
            e.at = double(libinput_event_keyboard_get_time_usec(key)) / 1e6;
            e.code = libinput_event_keyboard_get_key(key);
            e.down = libinput_event_keyboard_get_key_state(key) == LIBINPUT_KEY_STATE_PRESSED;
            break;
        }
        case LIBINPUT_EVENT_POINTER_BUTTON:
        case LIBINPUT_EVENT_POINTER_MOTION:
        case LIBINPUT_EVENT_POINTER_MOTION_ABSOLUTE: {
            auto* pointer = libinput_event_get_pointer_event(event);
            e.at = double(libinput_event_pointer_get_time_usec(pointer)) / 1e6;
            if (type == LIBINPUT_EVENT_POINTER_BUTTON) {
                e.kind = InputEvent::Kind::button;
                e.code = libinput_event_pointer_get_button(pointer);
                e.down = libinput_event_pointer_get_button_state(pointer) == LIBINPUT_BUTTON_STATE_PRESSED;
            } else if (type == LIBINPUT_EVENT_POINTER_MOTION) {
                e.kind = InputEvent::Kind::motion;
                e.x = libinput_event_pointer_get_dx(pointer);
                e.y = libinput_event_pointer_get_dy(pointer);
            } else {
                e.kind = InputEvent::Kind::absolute;
                e.x = libinput_event_pointer_get_absolute_x_transformed(pointer, 1);
                e.y = libinput_event_pointer_get_absolute_y_transformed(pointer, 1);
            }
            break;
        }
        default:
            return; // scrolling, touch, gestures, tablets, switches
        }
        m_tracker->handle(e);
    }

    udev* m_udev = nullptr;
    libinput* m_libinput = nullptr;
    int m_wake = -1;
    uint32_t m_lastDevice = 0;
    int m_devices = 0;
    std::atomic<int> m_refused{0};
    std::jthread m_thread;
};

} // namespace

std::optional<std::string> inputDevicesRefusal(const fs::path& folder)
{
    std::error_code ec;
    bool any = false;
    for (const auto& entry : fs::directory_iterator(folder, ec)) {
        if (!entry.path().filename().string().starts_with("event"))
            continue;
        any = true;
        if (::access(entry.path().c_str(), R_OK) == 0)
            return std::nullopt;
    }
    if (ec == std::errc::permission_denied || any)
        return groupSentence(folder);
    return "This computer shows Plim no input devices (" + folder.string()
        + " has none), so this recording rolls on without clicks and keys.";
}

Result<DesktopInputs> openLibinputInputs(const LibinputOptions& options)
{
    if (auto refusal = inputDevicesRefusal(options.devices))
        return fail(*refusal, Error::Kind::refused);
    auto tracker = InputTracker::create(options.layout, options.keymap);
    if (!tracker)
        return fail(tracker.error().sentence, Error::Kind::refused);
    if (options.pointer)
        (*tracker)->placePointer(*options.pointer);
    (*tracker)->placeClicksBy(options.clicksAt);
    auto owner = std::make_shared<LibinputInputs>(std::move(*tracker));
    PLIM_TRY(owner->open(options.devices));
    DesktopInputs inputs;
    inputs.pointer = &owner->tracker();
    inputs.keyActivity = &owner->tracker();
    inputs.clicks = &owner->clicks;
    inputs.keys = &owner->keys;
    inputs.owner = std::move(owner);
    return inputs;
}

} // namespace plim
