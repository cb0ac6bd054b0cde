#include "app/voiceover_take.h"

#include "base/dates.h"
#include "base/files.h"
#include "base/json.h"
#include "base/log.h"
#include "library/plim_document.h"
#include "media/movie_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

namespace plim {

namespace {

void put16(uint8_t* at, uint32_t v)
{
    at[0] = uint8_t(v);
    at[1] = uint8_t(v >> 8);
}

void put32(uint8_t* at, uint32_t v)
{
    put16(at, v & 0xffff);
    put16(at + 2, v >> 16);
}

uint32_t get16(const uint8_t* at) { return uint32_t(at[0]) | uint32_t(at[1]) << 8; }
uint32_t get32(const uint8_t* at) { return get16(at) | get16(at + 2) << 16; }

// The canonical 44-byte header of 16-bit mono PCM.
std::array<uint8_t, TakeWriter::headerBytes> waveHeader(int rate, int64_t frames)
{
    const uint32_t data = uint32_t(std::min<int64_t>(frames * 2, int64_t(UINT32_MAX) - 36));
    std::array<uint8_t, TakeWriter::headerBytes> h{};
    std::memcpy(&h[0], "RIFF", 4);
    put32(&h[4], 36 + data);
    std::memcpy(&h[8], "WAVEfmt ", 8);
    put32(&h[16], 16);
    put16(&h[20], 1); // PCM
    put16(&h[22], 1); // mono
    put32(&h[24], uint32_t(rate));
    put32(&h[28], uint32_t(rate) * 2);
    put16(&h[32], 2);
    put16(&h[34], 16);
    std::memcpy(&h[36], "data", 4);
    put32(&h[40], data);
    return h;
}

Status writeAll(int fd, const void* bytes, size_t size, int64_t at, const fs::path& path)
{
    const auto* p = static_cast<const uint8_t*>(bytes);
    while (size > 0) {
        ssize_t n = ::pwrite(fd, p, size, at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return fail("The voiceover take " + path.string() + " could not be written (" + errnoText(errno) + ")",
                errno == ENOSPC || errno == EDQUOT ? Error::Kind::noSpace : Error::Kind::failed);
        p += n;
        at += n;
        size -= size_t(n);
    }
    return {};
}

} // namespace

fs::path voiceoversFolder(const fs::path& libraryFolder) { return libraryFolder / voiceoversFolderName; }

fs::path VoiceoverNote::takeIn(const fs::path& folder, const std::string& id) { return folder / (id + ".wav"); }

fs::path VoiceoverNote::noteIn(const fs::path& folder, const std::string& id) { return folder / (id + ".json"); }

std::optional<std::string> VoiceoverNote::idOfNote(const fs::path& note)
{
    if (note.extension() != ".json" || !isUuid(note.stem().string()))
        return std::nullopt;
    return note.stem().string();
}

Status VoiceoverNote::write(const fs::path& folder) const
{
    Json json = {{"id", id}, {"movie", movie.string()}, {"start", start}, {"pid", process.pid},
        {"bootID", process.bootID}};
    if (plimID)
        json["plim"] = *plimID;
    if (process.processStart)
        json["processStart"] = *process.processStart;
    return writeJsonAtomic(noteIn(folder, id), json);
}

Result<VoiceoverNote> VoiceoverNote::read(const fs::path& note)
{
    auto json = PLIM_TRY(readJsonFile(note));
    auto id = jsonString(json, "id");
    auto movie = jsonString(json, "movie");
    auto start = jsonNumber(json, "start");
    if (!id || !isUuid(*id) || !movie || movie->empty() || !start || !std::isfinite(*start) || *start < 0)
        return fail("it does not say which plim the take belongs to, or where", Error::Kind::corrupt);
    auto process = RecordingMarker::read(note);
    if (!process)
        return fail("it names no process", Error::Kind::corrupt);
    return VoiceoverNote{*id, fs::path(*movie), jsonString(json, "plim"), *start, *process};
}

Result<std::unique_ptr<TakeWriter>> TakeWriter::create(const fs::path& path, int sampleRate)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        return fail("The voiceover take " + path.string() + " could not be made (" + errnoText(errno) + ")",
            errno == ENOSPC || errno == EDQUOT ? Error::Kind::noSpace : Error::Kind::failed);
    std::unique_ptr<TakeWriter> writer(new TakeWriter(fd, path, sampleRate));
    auto header = waveHeader(sampleRate, 0);
    if (auto written = writeAll(fd, header.data(), header.size(), 0, path); !written) {
        writer->discard();
        return std::unexpected(written.error());
    }
    return writer;
}

TakeWriter::~TakeWriter()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

Status TakeWriter::append(const float* samples, int64_t frames)
{
    if (m_fd < 0 || frames <= 0)
        return {};
    std::vector<uint8_t> bytes(size_t(frames) * 2);
    for (int64_t i = 0; i < frames; ++i) {
        float s = std::isfinite(samples[i]) ? std::clamp(samples[i], -1.0f, 1.0f) : 0.0f;
        put16(&bytes[size_t(i) * 2], uint16_t(int16_t(std::lround(s * 32767.0f))));
    }
    PLIM_TRY(writeAll(m_fd, bytes.data(), bytes.size(), headerBytes + m_frames * 2, m_path));
    m_frames += frames;
    return {};
}

Status TakeWriter::sync()
{
    if (m_fd < 0)
        return {};
    auto header = waveHeader(m_rate, m_frames);
    PLIM_TRY(writeAll(m_fd, header.data(), header.size(), 0, m_path));
    if (::fdatasync(m_fd) != 0)
        return fail("The voiceover take " + m_path.string() + " could not be put on the disk (" + errnoText(errno) + ")",
            errno == ENOSPC || errno == EDQUOT ? Error::Kind::noSpace : Error::Kind::failed);
    return {};
}

void TakeWriter::discard()
{
    if (m_fd >= 0)
        ::close(std::exchange(m_fd, -1));
    std::error_code ignored;
    fs::remove(m_path, ignored);
}

Result<TakeInfo> inspectTake(const fs::path& take)
{
    int fd = PLIM_TRY(openOrdinaryFile(take));
    std::array<uint8_t, TakeWriter::headerBytes> h{};
    ssize_t got = ::pread(fd, h.data(), h.size(), 0);
    struct stat st{};
    const bool stated = ::fstat(fd, &st) == 0;
    ::close(fd);
    if (got < 0 || !stated)
        return fail(errnoText(errno), Error::Kind::unreadable);
    const int rate = int(get32(&h[24]));
    if (got != TakeWriter::headerBytes || std::memcmp(&h[0], "RIFF", 4) != 0 || std::memcmp(&h[8], "WAVEfmt ", 8) != 0
        || get32(&h[16]) != 16 || get16(&h[20]) != 1 || get16(&h[22]) != 1 || get16(&h[34]) != 16
        || std::memcmp(&h[36], "data", 4) != 0 || rate < 8000 || rate > 192000)
        return fail("it is not a voiceover take Plim wrote", Error::Kind::corrupt);
    TakeInfo info;
    info.sampleRate = rate;
    info.frames = (int64_t(st.st_size) - TakeWriter::headerBytes) / 2;
    info.headerUpToDate = int64_t(get32(&h[40])) == info.frames * 2 && int64_t(st.st_size) % 2 == 0;
    return info;
}

Result<PlimEdits::Voiceover> joinTake(const fs::path& take, const VoiceoverNote& note, PlimDocument& document)
{
    const fs::path folder = note.movie.parent_path();
    const std::string plimName = "\"" + baseName(note.movie) + "\"";
    auto info = inspectTake(take);
    if (!info)
        return fail("The voiceover take " + take.string() + " could not be read (" + info.error().sentence
                + "), so it was not added to " + plimName + "; it was left as it is.",
            info.error().kind);

    // A copy made whole under a name nobody uses, then published under a new name.
    const fs::path wished = sidecarPath(note.movie, "voiceover.wav");
    const fs::path partial = partialSibling(wished);
    auto failed = [&](const std::string& why, Error::Kind kind = Error::Kind::failed) {
        std::error_code ignored;
        fs::remove(partial, ignored);
        return fail("The voiceover could not be added to " + plimName + ": " + why + ". The take is kept in "
                + take.parent_path().string() + " as " + take.filename().string()
                + ", and Plim adds it at its next start.",
            kind);
    };
    std::error_code ec;
    if (!fs::copy_file(take, partial, fs::copy_options::none, ec))
        return failed("it could not be copied into " + folder.string() + " (" + ec.message() + ")",
            ec == std::errc::no_space_on_device ? Error::Kind::noSpace : Error::Kind::failed);
    if (!info->headerUpToDate) {
        // Only the whole frames the take holds; a byte cut off mid-sample goes.
        fs::resize_file(partial, uint64_t(TakeWriter::headerBytes + info->frames * 2), ec);
        int fd = ec ? -1 : ::open(partial.c_str(), O_WRONLY | O_CLOEXEC);
        auto header = waveHeader(info->sampleRate, info->frames);
        Status fixed = fd < 0 ? fail(ec ? ec.message() : errnoText(errno))
                              : writeAll(fd, header.data(), header.size(), 0, partial);
        if (fd >= 0)
            ::close(fd);
        if (!fixed)
            return failed("its copy's header could not be made whole (" + fixed.error().sentence + ")");
    }
    auto published = publishFile(partial, wished, Publish::asNewFile);
    if (!published)
        return failed(published.error().sentence);

    PlimEdits::Voiceover voice;
    voice.id = note.id;
    voice.start = note.start;
    voice.duration = info->seconds();
    voice.file = published->filename().string();
    // micUnder keeps its default of 0.25 (-12 dB): the recording's own sound (typing,
    // clicks, the computer's sound) stays there as a background while the narration is
    // clearly in front; silencing it would leave holes in the picture's sound.
    auto id = document.addVoiceover(voice);
    if (!id) {
        fs::remove(*published, ec);
        return failed("its edits did not take it");
    }
    voice.id = *id;
    if (auto saved = document.save(); !saved) {
        document.removeVoiceover(*id);
        fs::remove(*published, ec);
        return failed("its edits could not be saved (" + saved.error().sentence + ")", saved.error().kind);
    }
    removeTake(take.parent_path(), note.id);
    logLine(LogArea::main, "a voiceover take of " + std::to_string(info->frames) + " frames joined " + note.movie.string()
            + " as " + voice.file);
    return voice;
}

Result<std::unique_ptr<PlimDocument>> openPlimForVoiceover(const fs::path& movie)
{
    auto reader = PLIM_TRY(MovieReader::create(movie, {.threads = 1}));
    const double duration = reader->info().duration;
    reader.reset();
    auto opened = PlimDocument::open(movie, duration, false, PlimDocument::automaticEdit(movie, duration));
    if (opened.notice)
        return std::unexpected(*opened.notice);
    return std::move(opened.document);
}

double voiceoverSourceTime(const PlimEdits& edits, double rawDuration, double outputTime)
{
    const bool deadAir = edits.look.value_or(PlimLook{}).deadAir;
    return edits.plan.playing(deadAir).clipTimeline(rawDuration).rawTime(outputTime).value_or(0.0);
}

void removeTake(const fs::path& folder, const std::string& id)
{
    std::error_code ignored;
    fs::remove(VoiceoverNote::takeIn(folder, id), ignored);
    fs::remove(VoiceoverNote::noteIn(folder, id), ignored);
}

} // namespace plim
