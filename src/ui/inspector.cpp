#include "ui/inspector.h"

#include "library/look_store.h"
#include "library/plim_document.h"
#include "plan/zoom_state.h"
#include "stage/stage_backdrop.h"
#include "stage/stage_style.h"
#include "ui/desktop_services.h"
#include "ui/labels.h"

#include <QBoxLayout>
#include <QButtonGroup>
#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QFileDialog>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QScrollArea>
#include <QSlider>
#include <QStandardPaths>
#include <QToolButton>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <type_traits>

namespace plim {

namespace {

QPixmap rounded(QSize size, const QBrush& fill, qreal radius)
{
    QPixmap pixmap(size);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    QPainterPath path;
    path.addRoundedRect(QRectF(QPointF(0, 0), QSizeF(size)).adjusted(1, 1, -1, -1), radius, radius);
    p.fillPath(path, fill);
    return pixmap;
}

QPixmap swatch(PlimLook::Backdrop backdrop, QSize size)
{
    const auto art = stage_style::lookBackdrop(backdrop);
    QLinearGradient gradient(QPointF(0, size.height()), QPointF(size.width(), 0));
    for (const auto& stop : art.stops)
        gradient.setColorAt(stop.offset, QColor::fromRgbF(float(stop.color.r), float(stop.color.g), float(stop.color.b)));
    return rounded(size, gradient, 6);
}

QColor tintColor(PlimLook::ClickTint tint)
{
    const Color c = stage_style::clickTint(clickTintFromText(PlimLook::clickTintText(tint)).value_or(ClickTint::white));
    return QColor::fromRgbF(float(c.r), float(c.g), float(c.b));
}

QString qtext(std::string_view raw) { return QString::fromUtf8(raw.data(), qsizetype(raw.size())); }

QString capitalized(std::string_view raw)
{
    QString s = qtext(raw);
    if (!s.isEmpty())
        s[0] = s[0].toUpper();
    return s;
}

const PlimLook::Shape shapes[] = {PlimLook::Shape::landscape, PlimLook::Shape::wide, PlimLook::Shape::vertical,
    PlimLook::Shape::square, PlimLook::Shape::iPhone};
const PlimLook::BubbleCorner corners[] = {
    PlimLook::BubbleCorner::tl, PlimLook::BubbleCorner::tr, PlimLook::BubbleCorner::bl, PlimLook::BubbleCorner::br};

template<typename T, size_t N>
int indexOf(const T (&values)[N], T value)
{
    return int(std::find(std::begin(values), std::end(values), value) - std::begin(values));
}

} // namespace

Inspector::Inspector(PlimDocument& document, LookStore& looks, QWidget* parent)
    : QWidget(parent), m_document(document), m_looks(looks)
{
    using Look = PlimLook;
    setObjectName("inspector");
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    auto* scroll = new QScrollArea;
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    outer->addWidget(scroll);
    auto* content = new QWidget;
    content->setObjectName("inspectorContent");
    auto* column = new QVBoxLayout(content);
    column->setContentsMargins(14, 10, 14, 14);
    column->setSpacing(14);
    scroll->setWidget(content);
    auto rows = [](std::initializer_list<QWidget*> widgets) {
        auto* body = new QWidget;
        auto* box = new QVBoxLayout(body);
        box->setContentsMargins(0, 0, 0, 0);
        for (QWidget* w : widgets)
            box->addWidget(w);
        return body;
    };

    // Layout and backdrop.
    {
        std::vector<Option> shapeOptions;
        for (Look::Shape shape : shapes)
            shapeOptions.push_back({qtext(Look::shapeText(shape)), "shape_" + qtext(Look::shapeText(shape))});
        QWidget* layout = lookChoice({}, shapeOptions, [](const Look& l) { return indexOf(shapes, l.shape); },
            [this](int i) {
                if (auto set = m_document.setShape(shapes[i]); !set && onNotice)
                    onNotice(QString::fromStdString(set.error().sentence));
                refresh();
            },
            3);
        std::vector<Option> backdrops;
        for (Look::Backdrop backdrop : Look::gradientBackdrops())
            backdrops.push_back({{}, "backdrop_" + qtext(Look::backdropText(backdrop)), swatch(backdrop, QSize(44, 30))});
        // The gradients, then the backdrops drawn from a colour or a picture, in their order.
        const int gradients = int(Look::gradientBackdrops().size());
        QWidget* backdrop = lookChoice("Backdrop", backdrops,
            [gradients](const Look& l) { return int(l.backdrop) < gradients ? int(l.backdrop) : -1; },
            [this](int i) { chooseBackdrop(i); }, 4);
        QWidget* ownBackdrop = lookChoice({},
            {{"Colour…", "backdrop_color"}, {"Picture…", "backdrop_image"}, {"Wallpaper", "backdrop_wallpaper"},
                {"As the stage", "backdrop_stage"}},
            [gradients](const Look& l) { return int(l.backdrop) - gradients; },
            [this, gradients](int i) { chooseBackdrop(gradients + i); }, 2);
        auto* sliders = new QWidget;
        auto* grid = new QGridLayout(sliders);
        grid->setContentsMargins(0, 0, 0, 0);
        grid->setColumnStretch(1, 1);
        const struct {
            const char* name;
            int minimum, maximum;
            double unit;
            double Look::*field;
        } card[] = {{"Padding", 0, 25, 100, &Look::padding}, {"Corners", 0, 10, 100, &Look::corners},
            {"Shadow", 0, 12, 10, &Look::shadow}};
        int row = 0;
        for (const auto& c : card) {
            QSlider* s = lookSlider(QString(c.name).toLower(), c.minimum, c.maximum,
                [c](const Look& l) { return int(std::lround(l.*c.field * c.unit)); },
                [c](Look& l, int v) { l.*c.field = v / c.unit; });
            grid->addWidget(secondaryLabel(c.name), row, 0);
            grid->addWidget(s, row++, 1);
        }
        column->addWidget(section("Look", rows({layout, backdrop, ownBackdrop, sliders})));
    }

    // Pointer and clicks.
    {
        auto* size = new QWidget;
        auto* sizeRow = new QHBoxLayout(size);
        sizeRow->setContentsMargins(0, 0, 0, 0);
        sizeRow->addWidget(secondaryLabel("Size"));
        sizeRow->addWidget(lookSlider("pointerSize", Look::smallestPointerSize / 10, Look::largestPointerSize / 10,
                               [](const Look& l) { return l.pointerSize.value_or(100) / 10; },
                               [](Look& l, int v) { l.pointerSize = v * 10; }),
            1);
        QWidget* glide = lookSwitch("Smooth the pointer's moves", [](const Look& l) { return l.cursorGlide; },
            [](Look& l, bool on) { l.cursorGlide = on; });
        QWidget* resting = lookSwitch("Hide the pointer while it rests",
            [](const Look& l) { return l.pointerHidesIdle.value_or(true); },
            [](Look& l, bool on) { l.pointerHidesIdle = on; });
        QWidget* spotlight = lookSwitch("Spotlight around the pointer", [](const Look& l) { return l.spotlight; },
            [](Look& l, bool on) { l.spotlight = on; });
        // None, then the click styles in their order.
        QWidget* clicks = lookChoice("Clicks",
            {{"None", "click_none"}, {"Rings", "click_ring"}, {"Ripple", "click_pulse"}, {"Dot", "click_highlight"},
                {"Spotlight", "click_spotlight"}},
            [](const Look& l) { return l.clickRings ? 1 + int(l.clickStyle.value_or(Look::ClickStyle::ring)) : 0; },
            [this](int i) {
                changeLook([i](Look& l) {
                    l.clickRings = i > 0;
                    if (i > 0)
                        l.clickStyle = Look::ClickStyle(i - 1);
                });
            },
            2);
        std::vector<Option> tints;
        for (auto tint : {Look::ClickTint::white, Look::ClickTint::cobalt, Look::ClickTint::amber, Look::ClickTint::green,
                 Look::ClickTint::magenta})
            tints.push_back({{}, "tint_" + qtext(Look::clickTintText(tint)), rounded(QSize(22, 22), tintColor(tint), 11)});
        QWidget* tint = lookChoice("Tint", tints,
            [](const Look& l) { return int(l.clickTint.value_or(Look::ClickTint::white)); },
            [this](int i) { changeLook([i](Look& l) { l.clickTint = Look::ClickTint(i); }); });
        column->addWidget(section("Pointer", rows({size, glide, resting, spotlight, clicks, tint})));
    }

    // Zoom: the style and level new zooms get, and the selected block's.
    {
        auto* defaults = new QWidget;
        auto* defaultsGrid = new QGridLayout(defaults);
        defaultsGrid->setContentsMargins(0, 0, 0, 0);
        defaultsGrid->setColumnStretch(1, 1);
        m_newZoomStyle = new QComboBox;
        m_newZoomStyle->setObjectName("newZoomStyle");
        m_newZoomStyle->addItem("As the stage", QString());
        for (ZoomStyle style : allZoomStyles)
            m_newZoomStyle->addItem(capitalized(zoomStyleText(style)), qtext(zoomStyleText(style)));
        connect(m_newZoomStyle, &QComboBox::activated, this, [this](int index) {
            const auto style = zoomStyleFromText(m_newZoomStyle->itemData(index).toString().toStdString());
            changeLook([style](Look& l) { l.zoomStyle = style; });
        });
        m_editing.push_back(m_newZoomStyle);
        defaultsGrid->addWidget(secondaryLabel("Style"), 0, 0);
        defaultsGrid->addWidget(m_newZoomStyle, 0, 1);
        defaultsGrid->addWidget(secondaryLabel("Level"), 1, 0);
        defaultsGrid->addWidget(lookSlider("newZoomLevel", int(Look::smallestZoomLevel * 10), int(Look::largestZoomLevel * 10),
                                    [](const Look& l) { return int(std::lround(l.zoomLevel.value_or(PlimDocument::newZoomLevel) * 10)); },
                                    [](Look& l, int v) { l.zoomLevel = v / 10.0; }),
            1, 1);

        m_zoomHint = secondaryLabel("Select a zoom block on the timeline to change its style and level.");
        m_zoomBlock = new QWidget;
        auto* grid = new QGridLayout(m_zoomBlock);
        grid->setContentsMargins(0, 0, 0, 0);
        grid->setColumnStretch(1, 1);
        m_zoomStyle = new QComboBox;
        m_zoomStyle->setObjectName("zoomStyle");
        m_zoomStyle->addItem("As new zooms", QString());
        for (ZoomStyle style : allZoomStyles)
            m_zoomStyle->addItem(capitalized(zoomStyleText(style)), qtext(zoomStyleText(style)));
        connect(m_zoomStyle, &QComboBox::activated, this, [this](int index) {
            if (!m_zoom || m_refreshing)
                return;
            const QString value = m_zoomStyle->itemData(index).toString();
            m_document.setZoomStyle(*m_zoom, value.isEmpty() ? std::nullopt : std::optional(value.toStdString()));
        });
        m_zoomLevel = slider(10, 40, [this](int v) {
            if (m_zoom)
                m_document.setZoomLevel(*m_zoom, v / 10.0);
        });
        m_zoomLevel->setObjectName("zoomLevel");
        m_zoomLevelText = new QLabel;
        grid->addWidget(secondaryLabel("Style"), 0, 0);
        grid->addWidget(m_zoomStyle, 0, 1, 1, 2);
        grid->addWidget(secondaryLabel("Level"), 1, 0);
        grid->addWidget(m_zoomLevel, 1, 1);
        grid->addWidget(m_zoomLevelText, 1, 2);
        m_editing.push_back(m_zoomStyle);
        QWidget* blur = lookSwitch("Motion blur while zooming", [](const Look& l) { return l.zoomBlur; },
            [](Look& l, bool on) { l.zoomBlur = on; });
        column->addWidget(section("Zoom",
            rows({secondaryLabel("New zooms"), defaults, secondaryLabel("Selected zoom"), m_zoomHint, m_zoomBlock, blur})));
    }

    // Camera bubble.
    {
        QWidget* bubble = lookSwitch("Show the camera bubble", [](const Look& l) { return l.cameraBubble; },
            [](Look& l, bool on) { l.cameraBubble = on; });
        std::vector<Option> places;
        const char* arrows[] = {"↖", "↗", "↙", "↘"};
        for (size_t i = 0; i < std::size(corners); ++i)
            places.push_back({QString::fromUtf8(arrows[i]), "corner_" + qtext(Look::bubbleCornerText(corners[i]))});
        QWidget* place = lookChoice("Place", places, [](const Look& l) { return indexOf(corners, l.bubbleCorner); },
            [this](int i) { changeLook([i](Look& l) { l.bubbleCorner = corners[i]; }); });
        auto* shape = new QWidget;
        auto* shapeRow = new QHBoxLayout(shape);
        shapeRow->setContentsMargins(0, 0, 0, 0);
        shapeRow->addWidget(secondaryLabel("Shape"));
        m_bubbleShape = new QButtonGroup(this);
        for (const char* name : {"circle", "card"}) {
            auto* button = new QPushButton(capitalized(name));
            button->setCheckable(true);
            button->setProperty("shape", QString(name));
            m_bubbleShape->addButton(button);
            shapeRow->addWidget(button);
            m_editing.push_back(button);
        }
        shapeRow->addStretch(1);
        connect(m_bubbleShape, &QButtonGroup::buttonClicked, this, [this](QAbstractButton* button) {
            if (!m_refreshing)
                m_document.setCameraShape(button->property("shape").toString().toStdString());
        });
        auto* size = new QWidget;
        auto* sizeRow = new QHBoxLayout(size);
        sizeRow->setContentsMargins(0, 0, 0, 0);
        sizeRow->addWidget(secondaryLabel("Size"));
        m_bubbleSize = slider(4, 25, [this](int v) { m_document.setCameraScale(v / 10.0); });
        sizeRow->addWidget(m_bubbleSize, 1);
        column->addWidget(section("Camera", rows({bubble, place, shape, size})));
    }

    // Keycaps, captions and their look, dead air.
    {
        const struct {
            const char* text;
            const char* name;
            bool Look::*field;
        } switches[] = {{"Keycaps for the keys you pressed", "keys", &Look::keys}, {"Captions", "captions", &Look::captions},
            {"Speed up dead air", "deadAir", &Look::deadAir}};
        std::vector<QWidget*> widgets;
        for (const auto& s : switches) {
            widgets.push_back(lookSwitch(s.text, [s](const Look& l) { return l.*s.field; },
                [s](Look& l, bool on) { l.*s.field = on; }));
            widgets.back()->setObjectName(s.name);
        }
        widgets.push_back(lookChoice("Caption size",
            {{"S", "captionSize_small"}, {"M", "captionSize_medium"}, {"L", "captionSize_large"}},
            [](const Look& l) { return int(l.captionSize.value_or(Look::CaptionSize::medium)); },
            [this](int i) { changeLook([i](Look& l) { l.captionSize = Look::CaptionSize(i); }); }));
        widgets.push_back(lookChoice("Caption place", {{"Bottom", "captionPlace_bottom"}, {"Top", "captionPlace_top"}},
            [](const Look& l) { return int(l.captionPlace.value_or(Look::CaptionPlace::bottom)); },
            [this](int i) { changeLook([i](Look& l) { l.captionPlace = Look::CaptionPlace(i); }); }));
        widgets.push_back(lookChoice("Caption box",
            {{"Dark", "captionBox_dark"}, {"Light", "captionBox_light"}, {"None", "captionBox_none"}},
            [](const Look& l) { return int(l.captionBox.value_or(Look::CaptionBox::dark)); },
            [this](int i) { changeLook([i](Look& l) { l.captionBox = Look::CaptionBox(i); }); }));
        auto* more = new QWidget;
        m_generateCaptions = new QPushButton("Generate captions");
        m_generateCaptions->setObjectName("generateCaptions");
        m_generateCaptions->setToolTip("Transcribe the plim's speech on this computer into its captions");
        connect(m_generateCaptions, &QPushButton::clicked, this, [this] {
            if (onGenerateCaptions)
                onGenerateCaptions();
        });
        m_editing.push_back(m_generateCaptions);
        // After the captions switch.
        widgets.insert(widgets.begin() + 2, m_generateCaptions);
        auto* box = new QVBoxLayout(more);
        box->setContentsMargins(0, 0, 0, 0);
        for (QWidget* w : widgets)
            box->addWidget(w);
        column->addWidget(section("Overlays", more));
    }

    // Saved looks.
    {
        auto* body = new QWidget;
        auto* grid = new QGridLayout(body);
        grid->setContentsMargins(0, 0, 0, 0);
        grid->setColumnStretch(0, 1);
        m_savedLooks = new QComboBox;
        m_savedLooks->setObjectName("savedLooks");
        m_applyLook = new QPushButton("Apply");
        m_lookName = new QLineEdit;
        m_lookName->setPlaceholderText("Name this look");
        m_saveLook = new QPushButton("Save");
        grid->addWidget(m_savedLooks, 0, 0);
        grid->addWidget(m_applyLook, 0, 1);
        grid->addWidget(m_lookName, 1, 0);
        grid->addWidget(m_saveLook, 1, 1);
        m_editing.push_back(m_savedLooks);
        m_editing.push_back(m_applyLook);
        connect(m_applyLook, &QPushButton::clicked, this, [this] {
            if (auto look = m_looks.look(m_savedLooks->currentText().toStdString()))
                m_document.applyLook(*look);
        });
        connect(m_saveLook, &QPushButton::clicked, this, [this] {
            const std::string name = m_lookName->text().trimmed().toStdString();
            if (name.empty())
                return;
            if (auto saved = m_looks.save(name, m_document.look()); !saved) {
                if (onNotice)
                    onNotice(QString::fromStdString(saved.error().sentence));
                return;
            }
            m_lookName->clear();
            refreshLooks();
            m_savedLooks->setCurrentText(QString::fromStdString(name));
        });
        column->addWidget(section("Looks", body));
    }
    column->addStretch(1);
    setMinimumWidth(300);
    refreshLooks();
    refresh();
}

void Inspector::changeLook(const LookChange& change)
{
    if (!m_refreshing)
        m_document.setLook(change);
}

// A gradient or the wallpaper is worn at once; a colour or a picture is asked for first.
// A picture or wallpaper that cannot be drawn leaves the gradient and says why.
void Inspector::chooseBackdrop(int id)
{
    using B = PlimLook::Backdrop;
    const B backdrop = B(id);
    const PlimLook look = m_document.look();
    if (backdrop == B::color) {
        const QColor colour = QColorDialog::getColor(
            QColor(QString::fromStdString(look.backdropColorOrDefault())), this, "Backdrop colour");
        if (colour.isValid())
            changeLook([hex = colour.name().toStdString()](PlimLook& l) {
                l.backdrop = B::color;
                l.backdropColor = hex;
            });
    } else if (backdrop == B::image) {
        const QString start = look.backdropImage ? toQString(std::filesystem::path(*look.backdropImage).parent_path())
                                                 : QStandardPaths::writableLocation(QStandardPaths::PicturesLocation);
        const QString file = QFileDialog::getOpenFileName(
            this, "Backdrop picture", start, "Pictures (*.png *.jpg *.jpeg *.webp);;All files (*)");
        if (!file.isEmpty())
            changeLook([path = file.toStdString()](PlimLook& l) {
                l.backdrop = B::image;
                l.backdropImage = path;
            });
    } else {
        changeLook([backdrop](PlimLook& l) { l.backdrop = backdrop; });
    }
    refresh();
    const PlimEdits& edits = m_document.edits();
    if (edits.look && onNotice)
        if (auto why = backdropFallback(wearing(m_stageBase.value_or(StageSpec{}), *edits.look), wallpaperFor(edits)))
            onNotice(QString::fromStdString(*why));
}

QCheckBox* Inspector::lookSwitch(const QString& label, std::function<bool(const PlimLook&)> get,
    std::function<void(PlimLook&, bool)> set)
{
    QCheckBox* box = check(label, [this, set](bool on) { changeLook([&](PlimLook& l) { set(l, on); }); });
    m_switches.emplace_back(box, std::move(get));
    return box;
}

QSlider* Inspector::lookSlider(const QString& name, int minimum, int maximum, std::function<int(const PlimLook&)> get,
    std::function<void(PlimLook&, int)> set)
{
    QSlider* s = slider(minimum, maximum, [this, set](int v) { changeLook([&](PlimLook& l) { set(l, v); }); });
    s->setObjectName(name);
    m_sliders.emplace_back(s, std::move(get));
    return s;
}

QWidget* Inspector::lookChoice(const QString& label, const std::vector<Option>& options,
    std::function<int(const PlimLook&)> get, std::function<void(int)> chosen, int columns)
{
    auto* body = new QWidget;
    auto* grid = new QGridLayout(body);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setSpacing(6);
    int first = 0;
    if (!label.isEmpty()) {
        grid->addWidget(secondaryLabel(label), 0, 0, 1, columns > 0 ? columns : int(options.size()));
        first = 1;
    }
    auto* group = new QButtonGroup(this);
    for (size_t i = 0; i < options.size(); ++i) {
        const Option& option = options[i];
        QAbstractButton* button = nullptr;
        if (!option.icon.isNull()) {
            auto* tool = new QToolButton;
            tool->setIcon(option.icon);
            tool->setIconSize(option.icon.availableSizes().value(0, QSize(22, 22)));
            tool->setAutoRaise(true);
            button = tool;
        } else {
            // Text buttons share the row's width rather than widen the inspector.
            button = new QPushButton(option.text);
            button->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
            grid->setColumnStretch(columns > 0 ? int(i) % columns : int(i), 1);
        }
        button->setCheckable(true);
        button->setObjectName(option.name);
        button->setToolTip(option.text.isEmpty() ? capitalized(option.name.section('_', 1).toStdString()) : option.text);
        group->addButton(button, int(i));
        const int at = int(i);
        if (columns > 0)
            grid->addWidget(button, first + at / columns, at % columns);
        else
            grid->addWidget(button, first, at);
        m_editing.push_back(button);
    }
    if (!options.empty() && !options.front().icon.isNull())
        grid->setColumnStretch(columns > 0 ? columns : int(options.size()), 1);
    connect(group, &QButtonGroup::idClicked, this, [this, chosen = std::move(chosen)](int id) {
        if (!m_refreshing)
            chosen(id);
    });
    m_choices.emplace_back(group, std::move(get));
    return body;
}

QWidget* Inspector::section(const QString& title, QWidget* body)
{
    auto* frame = new QFrame;
    frame->setObjectName("inspectorSection");
    auto* box = new QVBoxLayout(frame);
    box->setContentsMargins(12, 10, 12, 12);
    box->setSpacing(8);
    box->addWidget(headingLabel(title));
    box->addWidget(body);
    return frame;
}

QSlider* Inspector::slider(int minimum, int maximum, const std::function<void(int)>& changed)
{
    auto* s = new QSlider(Qt::Horizontal);
    s->setRange(minimum, maximum);
    // A drag is one undo step.
    connect(s, &QSlider::sliderPressed, this, [this] { m_document.beginGesture(); });
    connect(s, &QSlider::sliderReleased, this, [this] { m_document.endGesture(); });
    connect(s, &QSlider::valueChanged, this, [this, changed](int value) {
        if (!m_refreshing)
            changed(value);
    });
    m_editing.push_back(s);
    return s;
}

QCheckBox* Inspector::check(const QString& text, const std::function<void(bool)>& changed)
{
    auto* box = new QCheckBox(text);
    connect(box, &QCheckBox::toggled, this, [this, changed](bool on) {
        if (!m_refreshing)
            changed(on);
    });
    m_editing.push_back(box);
    return box;
}

void Inspector::setSelectedZoom(std::optional<std::string> id)
{
    m_zoom = std::move(id);
    refresh();
}

void Inspector::setReadOnly(bool readOnly)
{
    for (QWidget* widget : m_editing)
        widget->setEnabled(!readOnly);
    m_saveLook->setEnabled(true); // saving a look changes no plim
}

void Inspector::refreshLooks()
{
    m_refreshing = true;
    const QString current = m_savedLooks->currentText();
    m_savedLooks->clear();
    for (const auto& saved : m_looks.saved())
        m_savedLooks->addItem(QString::fromStdString(saved.name));
    m_savedLooks->setCurrentText(current);
    m_applyLook->setEnabled(m_savedLooks->count() > 0);
    m_savedLooks->setPlaceholderText(m_looks.loadProblem() ? "Saved looks could not be read" : "No saved looks yet");
    m_refreshing = false;
}

void Inspector::setStageBase(const StageSpec& base)
{
    m_stageBase = base;
    refresh();
}

PlimLook Inspector::shownLook() const
{
    using Look = PlimLook;
    Look shown = m_document.look();
    if (!m_stageBase)
        return shown;
    // An open choice shows the option that, chosen, would leave the staged look as it is.
    const StageSpec staged = wearing(*m_stageBase, shown);
    auto fill = [&](auto key, std::initializer_list<std::remove_reference_t<decltype(*(shown.*key))>> options) {
        if (shown.*key)
            return;
        for (const auto& option : options) {
            Look probe = shown;
            probe.*key = option;
            if (wearing(*m_stageBase, probe) == staged) {
                shown.*key = option;
                return;
            }
        }
    };
    fill(&Look::pointerSize, {staged.cursorSize});
    fill(&Look::pointerHidesIdle, {true, false});
    fill(&Look::clickStyle,
        {Look::ClickStyle::ring, Look::ClickStyle::pulse, Look::ClickStyle::highlight, Look::ClickStyle::spotlight});
    fill(&Look::clickTint, {Look::ClickTint::white, Look::ClickTint::cobalt, Look::ClickTint::amber,
                               Look::ClickTint::green, Look::ClickTint::magenta});
    fill(&Look::captionSize, {Look::CaptionSize::small, Look::CaptionSize::medium, Look::CaptionSize::large});
    fill(&Look::captionPlace, {Look::CaptionPlace::bottom, Look::CaptionPlace::top});
    fill(&Look::captionBox, {Look::CaptionBox::dark, Look::CaptionBox::light, Look::CaptionBox::none});
    return shown;
}

void Inspector::refresh()
{
    m_refreshing = true;
    const PlimLook look = shownLook();
    for (const auto& [box, get] : m_switches)
        box->setChecked(get(look));
    for (const auto& [s, get] : m_sliders)
        if (!s->isSliderDown())
            s->setValue(get(look));
    for (const auto& [group, get] : m_choices) {
        if (auto* button = group->button(get(look))) {
            button->setChecked(true);
        } else if (auto* checked = group->checkedButton()) {
            group->setExclusive(false); // none of its choices is worn
            checked->setChecked(false);
            group->setExclusive(true);
        }
    }
    m_newZoomStyle->setCurrentIndex(
        std::max(0, m_newZoomStyle->findData(look.zoomStyle ? qtext(zoomStyleText(*look.zoomStyle)) : QString())));
    // Left to the stage: the style its staging zooms with.
    m_newZoomStyle->setItemText(0, m_stageBase
            ? "As the stage (" + capitalized(zoomStyleText(wearing(*m_stageBase, look).zoomStyle)) + ")"
            : QString("As the stage"));
    const EditPlan& plan = m_document.edits().plan;
    for (QAbstractButton* button : m_bubbleShape->buttons())
        button->setChecked(button->property("shape").toString().toStdString() == plan.cameraShape.value_or("circle"));
    if (!m_bubbleSize->isSliderDown())
        m_bubbleSize->setValue(int(std::lround(plan.cameraScale.value_or(1.0) * 10)));

    const auto& zooms = plan.zooms;
    auto block = m_zoom ? std::find_if(zooms.begin(), zooms.end(), [&](const ZoomBlock& z) { return z.id == *m_zoom; })
                        : zooms.end();
    m_zoomBlock->setVisible(block != zooms.end());
    m_zoomHint->setVisible(block == zooms.end());
    if (block != zooms.end()) {
        const int index = m_zoomStyle->findData(QString::fromStdString(block->style.value_or("")));
        m_zoomStyle->setCurrentIndex(std::max(0, index));
        if (!m_zoomLevel->isSliderDown())
            m_zoomLevel->setValue(int(std::lround(block->scale * 10)));
        m_zoomLevelText->setText(QString::number(block->scale, 'f', 1) + "×");
    }
    m_refreshing = false;
}

void Inspector::setCaptionsBusy(bool busy)
{
    m_generateCaptions->setEnabled(!busy);
    m_generateCaptions->setText(busy ? "Generating captions…" : "Generate captions");
}

} // namespace plim
