// The clipboard offer on X11: a grandchild process owns the CLIPBOARD selection on a
// connection of its own and answers requests until it loses the selection or the display.

#include "share/clipboard.h"

#include "base/files.h"

#include <xcb/xcb.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace plim {

namespace {

xcb_atom_t atom(xcb_connection_t* c, const std::string& name)
{
    auto cookie = xcb_intern_atom(c, 0, static_cast<uint16_t>(name.size()), name.c_str());
    xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(c, cookie, nullptr);
    xcb_atom_t a = reply ? reply->atom : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
    std::free(reply);
    return a;
}

// What the offer answers: each target with its bytes.
struct Offer {
    std::vector<std::pair<xcb_atom_t, std::string>> targets;
    xcb_atom_t targetsAtom = XCB_ATOM_NONE;
};

// Serves the selection; writes one byte to `ready` ('1' once it owns the clipboard, '0'
// when it cannot) and returns when the offer ends.
void serve(const std::filesystem::path& file, int ready)
{
    auto report = [&](char c) {
        if (ready >= 0) {
            (void)!::write(ready, &c, 1);
            ::close(ready);
            ready = -1;
        }
    };
    int screenNumber = 0;
    xcb_connection_t* c = xcb_connect(nullptr, &screenNumber);
    if (!c || xcb_connection_has_error(c)) {
        report('0');
        return;
    }
    const xcb_setup_t* setup = xcb_get_setup(c);
    xcb_screen_iterator_t screens = xcb_setup_roots_iterator(setup);
    for (int i = 0; i < screenNumber && screens.rem; ++i)
        xcb_screen_next(&screens);
    xcb_window_t window = xcb_generate_id(c);
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screens.data->root, 0, 0, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
        screens.data->root_visual, 0, nullptr);

    const std::string uri = fileURI(file);
    Offer offer;
    offer.targetsAtom = atom(c, "TARGETS");
    offer.targets.push_back({atom(c, "text/uri-list"), uri + "\r\n"});
    offer.targets.push_back({atom(c, "x-special/gnome-copied-files"), "copy\n" + uri});
    offer.targets.push_back({atom(c, "UTF8_STRING"), file.string()});
    offer.targets.push_back({atom(c, "text/plain"), file.string()});
    // The file's own bytes when they fit in one property change (no incremental transfer).
    const size_t largest = static_cast<size_t>(xcb_get_maximum_request_length(c)) * 4 - 4096;
    if (std::string type = clipboardTypeOf(file); !type.empty())
        if (auto bytes = readFileBytes(file, largest))
            offer.targets.push_back({atom(c, type), std::move(*bytes)});

    const xcb_atom_t clipboard = atom(c, "CLIPBOARD");
    xcb_set_selection_owner(c, window, clipboard, XCB_CURRENT_TIME);
    auto owner = xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, clipboard), nullptr);
    const bool owns = owner && owner->owner == window;
    std::free(owner);
    if (!owns) {
        report('0');
        xcb_disconnect(c);
        return;
    }
    report('1');

    while (xcb_generic_event_t* event = xcb_wait_for_event(c)) {
        const uint8_t type = event->response_type & 0x7f;
        if (type == XCB_SELECTION_CLEAR) {
            std::free(event);
            break;
        }
        if (type == XCB_SELECTION_REQUEST) {
            auto* request = reinterpret_cast<xcb_selection_request_event_t*>(event);
            xcb_atom_t property = request->property ? request->property : request->target;
            if (request->target == offer.targetsAtom) {
                std::vector<xcb_atom_t> atoms{offer.targetsAtom};
                for (const auto& [a, bytes] : offer.targets)
                    atoms.push_back(a);
                xcb_change_property(c, XCB_PROP_MODE_REPLACE, request->requestor, property, XCB_ATOM_ATOM, 32,
                    static_cast<uint32_t>(atoms.size()), atoms.data());
            } else {
                auto served = std::find_if(offer.targets.begin(), offer.targets.end(),
                    [&](const auto& t) { return t.first == request->target; });
                if (served == offer.targets.end())
                    property = XCB_ATOM_NONE;
                else
                    xcb_change_property(c, XCB_PROP_MODE_REPLACE, request->requestor, property, request->target, 8,
                        static_cast<uint32_t>(served->second.size()), served->second.data());
            }
            xcb_selection_notify_event_t notify{};
            notify.response_type = XCB_SELECTION_NOTIFY;
            notify.time = request->time;
            notify.requestor = request->requestor;
            notify.selection = request->selection;
            notify.target = request->target;
            notify.property = property;
            xcb_send_event(c, 0, request->requestor, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&notify));
            xcb_flush(c);
        }
        std::free(event);
    }
    xcb_disconnect(c);
}

} // namespace

Status offerFileOnClipboard(const std::filesystem::path& file)
{
    if (!std::getenv("DISPLAY"))
        return fail("there is no X display to hold the clipboard");
    std::error_code ec;
    const std::filesystem::path absolute = std::filesystem::absolute(file, ec);
    int ends[2];
    if (ec || ::pipe2(ends, O_CLOEXEC) != 0)
        return fail("the clipboard could not be offered (no pipe)");
    pid_t child = ::fork();
    if (child < 0) {
        ::close(ends[0]);
        ::close(ends[1]);
        return fail("the clipboard could not be offered (no process)");
    }
    if (child == 0) {
        // Detached twice over, so the offer is nobody's child and holds no terminal or pipe
        // of the caller's open.
        ::setsid();
        if (::fork() != 0)
            ::_exit(0);
        int null = ::open("/dev/null", O_RDWR);
        for (int fd = 0; fd <= 2; ++fd)
            ::dup2(null, fd);
        ::close_range(3, static_cast<unsigned>(ends[1]) - 1, 0);
        ::close_range(static_cast<unsigned>(ends[1]) + 1, ~0u, 0);
        serve(absolute, ends[1]);
        ::_exit(0);
    }
    ::close(ends[1]);
    int status = 0;
    ::waitpid(child, &status, 0);
    char answer = '0';
    pollfd waiting{ends[0], POLLIN, 0};
    const bool answered = ::poll(&waiting, 1, 5000) == 1 && ::read(ends[0], &answer, 1) == 1;
    ::close(ends[0]);
    if (!answered || answer != '1')
        return fail("the X display would not let Plim hold the clipboard");
    return {};
}

} // namespace plim
