#pragma once
// The suite's three messages between apps, over a BusTransport: the beacon (recording
// state), control verbs sent to an app, and "filed" notes.

#include "suite/beacon.h"
#include "suite/bus_transport.h"

#include <functional>
#include <memory>
#include <string>

namespace plim {

// Where an observer's handler runs: the queue gets each call as a job to run. Left
// empty, handlers run on the transport's own thread.
using DeliveryQueue = std::function<void(std::function<void()>)>;

// One observer's registration. cancel() (also run when it is destroyed) stops delivery:
// once it returns, no handler call starts, including calls already handed to the
// queue, and one running on another thread has finished. Safe to call from within the
// observer's own handler.
class SuiteBusObservation {
public:
    SuiteBusObservation() = default;
    ~SuiteBusObservation();
    SuiteBusObservation(SuiteBusObservation&&) noexcept = default;
    SuiteBusObservation& operator=(SuiteBusObservation&& other) noexcept;

    void cancel();
    bool isActive() const;

private:
    friend class SuiteBus;
    struct Gate;
    std::shared_ptr<Gate> m_gate;
    std::unique_ptr<BusTransport::Subscription> m_subscription;
};

class SuiteBus {
public:
    // The session bus ($DBUS_SESSION_BUS_ADDRESS, or `address`).
    static Result<SuiteBus> connectSession(std::optional<std::string> address = std::nullopt);
    explicit SuiteBus(std::shared_ptr<BusTransport> transport);

    Status postBeacon(const BeaconState& state, SuiteApp from);
    // Payloads that do not parse are ignored.
    Result<SuiteBusObservation> observeBeacon(
        SuiteApp of, DeliveryQueue queue, std::function<void(const BeaconState&)> handler);
    // The same, with the sender's bus name for isSenderConnected().
    Result<SuiteBusObservation> observeBeaconWithSender(
        SuiteApp of, DeliveryQueue queue, std::function<void(const BeaconState&, const std::string& sender)> handler);

    Status sendControl(ControlVerb verb, SuiteApp to);
    // Verbs the app does not act on (supportedControlVerbs) are ignored.
    Result<SuiteBusObservation> observeControl(
        SuiteApp forApp, DeliveryQueue queue, std::function<void(ControlVerb)> handler);

    Status postFiled(const std::string& text, SuiteApp from);
    Result<SuiteBusObservation> observeFiled(
        SuiteApp of, DeliveryQueue queue, std::function<void(const std::string&)> handler);

    // Whether the process that sent a message is still on the bus: what a
    // BeaconLivenessWatchdog asks. A failed question counts as still running. It waits
    // for the transport's thread, so a handler running there (one observed without a
    // DeliveryQueue) must not stop a watchdog that asks it.
    bool isSenderConnected(const std::string& sender);

    // Posts through this bus, for BeaconBroadcaster.
    BeaconBroadcaster::Post beaconPoster() const;

    Status flush();
    const std::shared_ptr<BusTransport>& transport() const { return m_transport; }

private:
    Result<SuiteBusObservation> observe(
        const std::string& name, DeliveryQueue queue, std::function<void(const std::string&, const std::string&)> handler);

    std::shared_ptr<BusTransport> m_transport;
};

} // namespace plim
