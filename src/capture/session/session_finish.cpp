// Finishing a recording: the sources stop, the writer drains and finishes, and what is kept
// is completed in order (offsets, cursor track, identity, keystroke track); what is not
// kept is removed.

#include "capture/session/session_state.h"

#include "base/log.h"
#include "capture/recording_marker.h"

namespace plim {

using namespace session;

namespace {

constexpr const char* noFrames = "No frames arrived before the plim ended.";
constexpr const char* neverStarted = "The recorder never started.";

} // namespace

Outcome<RawPlim> CaptureSession::finish()
{
    Impl& s = *m_impl;
    if (s.finished)
        return Outcome<RawPlim>::failed(neverStarted);
    s.finished = true;
    // Whatever the outcome, the plim is no longer rolling once finishing returns.
    struct Unmark {
        const fs::path& movie;
        ~Unmark() { RecordingMarker::remove(movie); }
    } unmark{s.options.movie};
    // Until then another process (plimctl live) can tell it is being finished, not rolling.
    if (auto marked = RecordingMarker::markFinishing(s.options.movie); !marked)
        logLine(LogArea::main, "the recording's marker could not be turned to finishing (" + marked.error().sentence + ")");
    // 1. The cursor recorder stops first and hands over its track, then the sources.
    CursorTrack track = s.cursor->stop();
    s.cursor->setFlushMovie(std::nullopt);
    s.stopSources();
    if (s.flushThread.joinable()) {
        s.flushThread.request_stop();
        s.flushThread.join();
    }
    s.queue->close(); // the writer drains what is queued
    if (s.writerThread.joinable())
        s.writerThread.join();

    // The writer finishes.
    const fs::path& movie = s.options.movie;
    if (!s.writer) {
        if (s.keystrokes)
            s.keystrokes->stop();
        return Outcome<RawPlim>::failed(neverStarted);
    }
    Status finished = s.writer->finish();
    if (s.cameraWriter) {
        if (auto camera = s.cameraWriter->finish(); !camera)
            s.missing(camera.error().sentence + " The plim is kept without its camera.");
    }

    RawPlim plim;
    plim.movie = movie;
    plim.subject = s.settings.subject;
    plim.width = s.width;
    plim.height = s.height;
    std::optional<double> firstFrame;
    std::optional<double> cameraStart;
    {
        std::lock_guard guard(s.lock);
        plim.frames = s.framesWritten;
        plim.droppedFrames = s.framesDropped + s.devices.screen->droppedFrames();
        if (plim.droppedFrames > 0)
            logLine(LogArea::main, std::to_string(plim.droppedFrames) + (plim.droppedFrames == 1 ? " frame was" : " frames were") + " dropped: "
                    + std::to_string(s.devices.screen->droppedFrames()) + " ticks passed while a picture was being taken, "
                    + std::to_string(s.framesDropped) + " pictures found the encoder's queue full.");
        if (s.soundDropped > 0)
            logLine(LogArea::main, std::to_string(s.soundDropped) + " blocks of sound found the encoder's queue full and were left out.");
        plim.seconds = s.framesWritten > 0 ? s.writtenSeconds + 1.0 / s.settings.framesPerSecond : 0;
        plim.failure = s.failure;
        firstFrame = s.firstFrameUptime;
        cameraStart = s.cameraFirstUptime;
        if (s.failureBeforeFirstFrame) {
            if (s.keystrokes)
                s.keystrokes->stop();
            std::error_code ignored;
            fs::remove(movie, ignored);
            removeTrackFiles(movie);
            return Outcome<RawPlim>::failed(*s.failure);
        }
    }

    // 2. No frame: nothing to keep.
    if (plim.frames == 0) {
        if (s.keystrokes)
            s.keystrokes->stop();
        std::error_code ec;
        removeTrackFiles(movie);
        fs::remove(sidecarPath(movie, PlimFiles::camera), ec);
        if (fs::exists(movie) && !fs::remove(movie, ec))
            logLine(LogArea::main, "could not remove empty plim file at " + movie.string());
        return Outcome<RawPlim>::failed(noFrames);
    }
    if (!finished) {
        // A kept fragmented movie still plays up to its last fragment.
        if (!plim.failure)
            plim.failure = finished.error().kind == Error::Kind::noSpace
                ? "The disk filled while rolling at " + lengthText(plim.seconds)
                : std::string("The plim file could not be written.");
        logLine(LogArea::main, "finishing the screen movie failed: "
                + (finished.error().sentence.empty() ? std::string(unknownWriterError) : finished.error().sentence));
        if (!fs::exists(movie))
            return Outcome<RawPlim>::failed(finished.error().sentence.empty() ? std::string(unknownWriterError)
                                                                              : finished.error().sentence);
    }

    // 3. Offsets, the cursor track, the identity, the keystroke track.
    track.videoStartOffsetMS = static_cast<int64_t>((*firstFrame - s.cursor->startUptime()) * 1000.0);
    if (cameraStart && fs::exists(sidecarPath(movie, PlimFiles::camera))) {
        track.cameraOffsetMS = static_cast<int64_t>((*firstFrame - *cameraStart) * 1000.0);
        plim.hasCamera = true;
    } else {
        track.cameraOffsetMS.reset();
    }
    if (auto written = track.write(movie); !written)
        s.missing(written.error().sentence
            + (fs::exists(CursorTrack::journalBeside(movie))
                    ? " The movie is kept, and its pointer, clicks and marks as far as their journal reached;"
                    : " The movie is kept, but the pointer, clicks and marks of this plim are lost;")
            + " free some disk space before the next recording.");
    if (s.options.ensureIdentity)
        s.options.ensureIdentity(movie);
    if (s.keystrokes) {
        KeystrokeTrack keys = s.keystrokes->stop();
        if (auto written = keys.write(movie); !written)
            s.missing(written.error().sentence + " The movie is kept, but the keys pressed in this plim are lost;"
                      " free some disk space before the next recording.");
    }
    return Outcome<RawPlim>::finished(std::move(plim));
}

} // namespace plim
