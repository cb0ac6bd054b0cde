#include "app/recording_services.h"

#include "base/log.h"
#include "library/library.h"

namespace plim {

void RecordingServices::attach(RecordingController::Environment& env, std::function<void(const std::string&)> noteMissing)
{
    if (auto connected = SuiteBus::connectSession()) {
        bus.emplace(std::move(*connected));
        beacon = std::make_unique<BeaconBroadcaster>(SuiteApp::plim, bus->beaconPoster());
        env.beacon = beacon.get();
    }
    if (auto writer = SuiteGraphWriter::create("plim"))
        moments = std::move(*writer);
    env.moments = moments.get();
    env.ensureIdentity = [noteMissing = std::move(noteMissing)](const fs::path& movie) {
        if (auto ensured = PlimIdentity::ensure(movie); !ensured) {
            std::string sentence = ensured.error().sentence + " The movie is kept without its identity file.";
            logLine(LogArea::main, sentence);
            if (noteMissing)
                noteMissing(sentence);
        }
    };
}

} // namespace plim
