#pragma once
// The broadcast channel under the suite's messages. A message name such as
// "app.plim.recording" travels as the signal "recording" of the interface "app.plim"
// and carries one string; every process listening for that name receives it, the
// sender included.
//
// Backends: bus_transport_sdbus.cpp (the D-Bus session bus, through sdbus-c++) and
// bus_transport_loopback.cpp (within one process, for callers that have no bus).
//
// Threads: every call may come from any thread. Handlers run on the transport's own
// thread, one at a time, in the order the messages arrived.

#include "base/error.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace plim {

class BusTransport {
public:
    // payload: the message's string; sender: the bus name of the process that sent it.
    using Handler = std::function<void(const std::string& payload, const std::string& sender)>;

    // Delivery lasts as long as the subscription. Once its destructor returns no call
    // of its handler starts, and one running on another thread has finished. It may
    // be destroyed from within its own handler.
    class Subscription {
    public:
        virtual ~Subscription() = default;
    };

    virtual ~BusTransport() = default;

    // Broadcasts `payload` under `name` and hands it to the bus at once. Required.
    virtual Status post(std::string_view name, const std::string& payload) = 0;

    // Delivers every message named `name`, from any sender. The subscription is in place
    // when this returns, so a message posted afterwards is not missed. Required.
    virtual Result<std::unique_ptr<Subscription>> subscribe(std::string_view name, Handler handler) = 0;

    // Whether the process behind a sender name is still connected. Required.
    virtual Result<bool> isConnected(const std::string& sender) = 0;

    // Waits until every message posted so far has left this process.
    virtual Status flush() = 0;
};

// Splits "app.plim.recording" into "app.plim" and "recording"; nothing for a name that
// is not a valid interface and member pair.
std::optional<std::pair<std::string, std::string>> splitBusName(std::string_view name);

// Connects to the session bus ($DBUS_SESSION_BUS_ADDRESS, or `address` when given).
Result<std::shared_ptr<BusTransport>> connectSessionBus(std::optional<std::string> address = std::nullopt);

// Delivers within this process only; the sender name of every message is ":loopback".
std::shared_ptr<BusTransport> makeLoopbackTransport();

} // namespace plim
