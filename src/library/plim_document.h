#pragma once
// The open editor's model of one plim: it owns the current edits, applies each edit
// operation as one change (no-ops record nothing; a gesture such as a drag is one undo
// step; at most 80 undo steps), and saves. An edits file that was refused (newer) or
// could not be read is never written by opening, only by a later edit and save.
// Lives on the main thread.

#include "base/error.h"
#include "base/geometry.h"
#include "library/plim_edits.h"
#include "library/plim_look.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace plim {

class PlimDocument {
public:
    static constexpr size_t undoLimit = 80;
    // The shortest stretch a trim, clip or zoom span keeps, in seconds.
    static constexpr double minimumSpan = 0.5;
    static constexpr double minimumBlurSpan = 0.1;
    static constexpr double newZoomLength = 2.0;
    static constexpr double newZoomLevel = 1.8; // unless the look names a zoom level
    static constexpr double newBlurLength = 3.0;
    static constexpr double minimumZoomLevel = plan_limits::minZoomScale;
    static constexpr double maximumZoomLevel = plan_limits::maxZoomScale;
    static constexpr double minimumPauseSpeed = plan_limits::minSkipRate;
    static constexpr double maximumPauseSpeed = plan_limits::maxSkipRate;


    struct OpenResult {
        std::unique_ptr<PlimDocument> document;
        bool editsFromFile = false; // the document holds the edits read from the file
        // Why the edits file could not be used, to show: Error::Kind::refused for a newer
        // format, otherwise it could not be read. Nothing when there was no such problem.
        std::optional<Error> notice;
    };

    struct SplitClips {
        std::string leftID;  // the clip that was cut (keeps its id)
        std::string rightID; // the new clip after it
    };

    // The edits a plim starts from when it has none it can use (its automatic edit).
    using FirstEdit = std::function<PlimEdits()>;

    // The plim's automatic edit from its cursor and keystroke tracks (and speech spans),
    // wearing `look` when given (its zooms at the look's zoom level when it has one): what a
    // plim without usable edits starts from. A plim
    // without a readable cursor track starts from empty edits.
    static FirstEdit automaticEdit(const fs::path& movieURL, double duration, std::optional<PlimLook> look = std::nullopt,
        std::vector<IdleSpan> speech = {});

    // Reads the edits beside the movie. Without an edits file, or when it is refused or
    // unreadable, the document starts from firstEdit() (empty edits when not given).
    static OpenResult open(const fs::path& movieURL, double duration, bool isPhonePlim, FirstEdit firstEdit = {});
    // A document over edits already in hand (nothing is read).
    PlimDocument(fs::path movieURL, double duration, bool isPhonePlim, PlimEdits edits);

    const fs::path& movieURL() const { return m_movieURL; }
    double duration() const { return m_duration; }
    bool isPhonePlim() const { return m_isPhonePlim; }
    const PlimEdits& edits() const { return m_edits; }
    bool canUndo() const { return !m_undoStack.empty(); }
    bool canRedo() const { return !m_redoStack.empty(); }
    bool isDirty() const { return m_isDirty; }
    const std::deque<PlimEdits>& undoStack() const { return m_undoStack; }
    const std::deque<PlimEdits>& redoStack() const { return m_redoStack; }
    const std::optional<PlimEdits>& gestureStart() const { return m_gestureStart; }
    // True while the file on disk was refused or unreadable and no edit was made since.
    bool protectsFileOnDisk() const { return m_protectsFile; }

    // Called after the edits, canUndo, canRedo or isDirty changed.
    void setObserver(std::function<void()> observer) { m_observer = std::move(observer); }

    // Writes the whole edits file with "writtenBy" set to this application. A document
    // that protects a refused or unreadable file writes nothing until it is edited. A
    // failure's sentence is the whole one; shortSaveSentence gives its short form.
    Status save();
    // "Plim could not save this plim's edits: " + the reason inside a failure of save().
    std::string shortSaveSentence(const Error& saveFailure) const;

    void undo();
    void redo();
    void beginGesture();
    void endGesture();

    // --- Edit operations: each is one change; values that are not finite are ignored. ---

    // Clamped to [0, trim end - 0.5]; with clips, the first clip's start is set instead.
    void setTrimIn(double t);
    // Clamped to [trim start + 0.5, duration]; with clips, the last clip's end.
    void setTrimOut(double t);
    void setClipStart(std::string_view id, double to);
    void setClipEnd(std::string_view id, double to);
    // Cuts the clip under the playhead (output seconds) in two.
    Result<SplitClips> splitClip(double at);
    void moveClip(std::string_view id, size_t toIndex);
    Status deleteClip(std::string_view id);
    // The timeline's clips: the stored ones, or when there are none the kept stretches
    // of the trims and cuts under ids made from their position.
    std::vector<PlimClip> clips() const;

    // A zoom placed by hand at source time `at`; returns its id.
    std::optional<std::string> addZoom(double at, double centerX, double centerY);
    // Moves the block keeping its length; a block not aimed by hand re-centres on the
    // point `followAt` gives for the middle of its new span.
    void moveZoom(std::string_view id, double toStart, const std::function<std::optional<Point>(double)>& followAt = {});
    void setZoomSpan(std::string_view id, double start, double end);
    void aimZoom(std::string_view id, double x, double y);
    void setZoomLevel(std::string_view id, double level);
    // A zoom style's text ("smooth", "snappy" ...) for this block, or nothing for the stage's
    // style; text that names no style is ignored.
    void setZoomStyle(std::string_view id, std::optional<std::string> style);
    void removeZoom(std::string_view id);

    // Stores the decision, replacing the skip with the same identity ("skip-<ms>").
    void skip(const SkipDecision& decision);
    void setPauseSpeed(std::string_view id, double speed);
    void setPauseSpan(std::string_view id, double start, double end);

    std::optional<std::string> addBlur(double at);
    void moveBlur(std::string_view id, double x, double y);
    void resizeBlur(std::string_view id, double w, double h);
    void setBlurSpan(std::string_view id, double start, double end);
    void removeBlur(std::string_view id);

    // Adds a voiceover (a new id is given when it has none or a taken one); returns its id.
    std::optional<std::string> addVoiceover(PlimEdits::Voiceover voiceover);
    void moveVoiceover(std::string_view id, double toStart);
    void removeVoiceover(std::string_view id);

    // The iPhone shape is refused for a plim not recorded from an iPhone.
    Status setShape(PlimLook::Shape shape);
    // The look a plim whose edits hold none is staged with (its stage look as a look, once
    // known); the first look change starts from it. Changes no edit.
    void setLookSeed(PlimLook seed) { m_lookSeed = std::move(seed); }
    // The edits' look, else the seed.
    PlimLook look() const { return m_edits.look.value_or(m_lookSeed); }
    // Changes the current look (the seed when the plim has none).
    void setLook(const std::function<void(PlimLook&)>& change);
    // Wears a whole look; a plim not from an iPhone keeps its shape when the look's is iPhone.
    void applyLook(const PlimLook& look);
    void setCaptionsFile(std::optional<std::string> name);
    // The camera bubble's shape ("circle" or "card"; other text is ignored) and size factor
    // (held within the plan's camera scale range).
    void setCameraShape(std::string_view shape);
    void setCameraScale(double scale);

private:
    // Applies `operation` to a copy and keeps it as one change; false when nothing changed.
    bool change(const std::function<void(PlimEdits&)>& operation);
    void notify();
    void stepHistory(std::deque<PlimEdits>& from, std::deque<PlimEdits>& to);
    // Applies `edit(item, edits)` to the plan item with that id as one change; nothing
    // happens when there is no such item.
    template<typename Item, typename Edit>
    void changePlanItem(std::vector<Item> EditPlan::*list, std::string_view id, Edit&& edit);
    // Sets the span of the item with that id, clamped to the recording and at least `minimum` long.
    template<typename Item>
    void setItemSpan(std::vector<Item> EditPlan::*list, std::string_view id, double start, double end, double minimum);
    // The clips to edit: the stored ones, or the kept stretches turned into clips.
    std::vector<PlimClip> clipsFor(const PlimEdits& edits) const;
    static void storeClips(PlimEdits& edits, std::vector<PlimClip> clips);
    // Applies `edit` to the clip with that id as one change, turning kept stretches into clips.
    void changeClip(std::string_view id, const std::function<void(PlimClip&)>& edit);
    double trimEnd(const PlimEdits& edits) const;

    fs::path m_movieURL;
    double m_duration = 0;
    bool m_isPhonePlim = false;
    PlimEdits m_edits;
    std::deque<PlimEdits> m_undoStack;
    std::deque<PlimEdits> m_redoStack;
    std::optional<PlimEdits> m_gestureStart;
    bool m_isDirty = false;
    bool m_protectsFile = false;
    PlimLook m_lookSeed;
    std::function<void()> m_observer;
};

std::string refusedShapeSentence();
std::string lastClipSentence();
std::string splitOffClipSentence();
std::string splitNearEndSentence();

} // namespace plim
