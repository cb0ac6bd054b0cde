#include "suite/suite_bus.h"

#include <algorithm>
#include <mutex>

namespace plim {

struct SuiteBusObservation::Gate {
    std::recursive_mutex lock; // held while a handler runs
    bool open = true;
};

SuiteBusObservation::~SuiteBusObservation() { cancel(); }

SuiteBusObservation& SuiteBusObservation::operator=(SuiteBusObservation&& other) noexcept
{
    if (this != &other) {
        cancel();
        m_gate = std::move(other.m_gate);
        m_subscription = std::move(other.m_subscription);
    }
    return *this;
}

void SuiteBusObservation::cancel()
{
    if (!m_gate)
        return;
    {
        std::lock_guard guard(m_gate->lock);
        m_gate->open = false;
    }
    m_subscription.reset();
    m_gate.reset();
}

bool SuiteBusObservation::isActive() const { return m_gate != nullptr; }

Result<SuiteBus> SuiteBus::connectSession(std::optional<std::string> address)
{
    auto transport = PLIM_TRY(connectSessionBus(std::move(address)));
    return SuiteBus(std::move(transport));
}

SuiteBus::SuiteBus(std::shared_ptr<BusTransport> transport) : m_transport(std::move(transport)) {}

Result<SuiteBusObservation> SuiteBus::observe(
    const std::string& name, DeliveryQueue queue, std::function<void(const std::string&, const std::string&)> handler)
{
    auto gate = std::make_shared<SuiteBusObservation::Gate>();
    auto deliver = [gate, queue = std::move(queue), handler = std::move(handler)](
                       const std::string& payload, const std::string& sender) {
        auto job = [gate, handler, payload, sender] {
            std::lock_guard guard(gate->lock);
            if (gate->open)
                handler(payload, sender);
        };
        if (queue)
            queue(std::move(job));
        else
            job();
    };
    auto subscription = PLIM_TRY(m_transport->subscribe(name, std::move(deliver)));
    SuiteBusObservation observation;
    observation.m_gate = std::move(gate);
    observation.m_subscription = std::move(subscription);
    return observation;
}

Status SuiteBus::postBeacon(const BeaconState& state, SuiteApp from)
{
    return m_transport->post(beaconName(from), state.wirePayload());
}

Result<SuiteBusObservation> SuiteBus::observeBeacon(
    SuiteApp of, DeliveryQueue queue, std::function<void(const BeaconState&)> handler)
{
    return observeBeaconWithSender(of, std::move(queue),
        [handler = std::move(handler)](const BeaconState& state, const std::string&) { handler(state); });
}

Result<SuiteBusObservation> SuiteBus::observeBeaconWithSender(
    SuiteApp of, DeliveryQueue queue, std::function<void(const BeaconState&, const std::string& sender)> handler)
{
    return observe(beaconName(of), std::move(queue),
        [handler = std::move(handler)](const std::string& payload, const std::string& sender) {
            if (auto state = BeaconState::parse(payload))
                handler(*state, sender);
        });
}

Status SuiteBus::sendControl(ControlVerb verb, SuiteApp to)
{
    return m_transport->post(controlName(to), std::string(controlVerbText(verb)));
}

Result<SuiteBusObservation> SuiteBus::observeControl(
    SuiteApp forApp, DeliveryQueue queue, std::function<void(ControlVerb)> handler)
{
    auto supported = supportedControlVerbs(forApp);
    return observe(controlName(forApp), std::move(queue),
        [supported, handler = std::move(handler)](const std::string& payload, const std::string&) {
            auto verb = controlVerbFromText(payload);
            if (verb && std::ranges::find(supported, *verb) != supported.end())
                handler(*verb);
        });
}

Status SuiteBus::postFiled(const std::string& text, SuiteApp from) { return m_transport->post(filedName(from), text); }

Result<SuiteBusObservation> SuiteBus::observeFiled(
    SuiteApp of, DeliveryQueue queue, std::function<void(const std::string&)> handler)
{
    return observe(filedName(of), std::move(queue),
        [handler = std::move(handler)](const std::string& payload, const std::string&) { handler(payload); });
}

bool SuiteBus::isSenderConnected(const std::string& sender)
{
    auto connected = m_transport->isConnected(sender);
    return connected ? *connected : true;
}

BeaconBroadcaster::Post SuiteBus::beaconPoster() const
{
    std::weak_ptr<BusTransport> weak = m_transport;
    return [weak](SuiteApp app, const std::string& payload) -> Status {
        auto transport = weak.lock();
        if (!transport)
            return fail("The suite bus is closed; the recording state was not sent.");
        return transport->post(beaconName(app), payload);
    };
}

Status SuiteBus::flush() { return m_transport->flush(); }

} // namespace plim
