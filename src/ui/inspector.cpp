#include "ui/inspector.h"

#include "library/look_store.h"
#include "library/plim_document.h"
#include "plan/zoom_state.h"
#include "stage/stage_style.h"
#include "ui/labels.h"

#include <QBoxLayout>
#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QScrollArea>
#include <QSlider>
#include <QToolButton>

#include <cmath>

namespace plim {

namespace {

QPixmap swatch(PlimLook::Backdrop backdrop, QSize size)
{
    QPixmap pixmap(size);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    const auto art = stage_style::lookBackdrop(backdrop);
    QLinearGradient gradient(QPointF(0, size.height()), QPointF(size.width(), 0));
    for (const auto& stop : art.stops)
        gradient.setColorAt(stop.offset, QColor::fromRgbF(float(stop.color.r), float(stop.color.g), float(stop.color.b)));
    QPainterPath path;
    path.addRoundedRect(QRectF(QPointF(0, 0), QSizeF(size)).adjusted(1, 1, -1, -1), 6, 6);
    p.fillPath(path, gradient);
    return pixmap;
}

QString capitalized(std::string_view text)
{
    QString s = QString::fromUtf8(text.data(), qsizetype(text.size()));
    if (!s.isEmpty())
        s[0] = s[0].toUpper();
    return s;
}

} // namespace

Inspector::Inspector(PlimDocument& document, LookStore& looks, QWidget* parent)
    : QWidget(parent), m_document(document), m_looks(looks)
{
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
    auto setLook = [this](auto change) {
        if (!m_refreshing)
            m_document.setLook(change);
    };

    // Layout and backdrop.
    {
        auto* body = new QWidget;
        auto* grid = new QVBoxLayout(body);
        grid->setContentsMargins(0, 0, 0, 0);
        auto* shapes = new QHBoxLayout;
        m_shape = new QButtonGroup(this);
        for (auto shape : {PlimLook::Shape::landscape, PlimLook::Shape::vertical, PlimLook::Shape::square, PlimLook::Shape::iPhone}) {
            auto* button = new QPushButton(QString::fromUtf8(PlimLook::shapeText(shape).data(), qsizetype(PlimLook::shapeText(shape).size())));
            button->setCheckable(true);
            button->setObjectName(QString("shape_") + QString::fromUtf8(PlimLook::shapeText(shape).data()));
            m_shape->addButton(button, int(shape));
            shapes->addWidget(button);
            m_editing.push_back(button);
        }
        grid->addLayout(shapes);
        connect(m_shape, &QButtonGroup::idClicked, this, [this](int id) {
            if (auto set = m_document.setShape(PlimLook::Shape(id)); !set && onNotice)
                onNotice(QString::fromStdString(set.error().sentence));
            refresh();
        });
        grid->addWidget(secondaryLabel("Backdrop"));
        auto* swatches = new QGridLayout;
        swatches->setSpacing(6);
        m_backdrop = new QButtonGroup(this);
        int i = 0;
        for (auto backdrop : {PlimLook::Backdrop::dawn, PlimLook::Backdrop::lagoon, PlimLook::Backdrop::meadow,
                 PlimLook::Backdrop::ember, PlimLook::Backdrop::graphite, PlimLook::Backdrop::paper, PlimLook::Backdrop::desk}) {
            auto* button = new QToolButton;
            button->setCheckable(true);
            button->setIcon(swatch(backdrop, QSize(44, 30)));
            button->setIconSize(QSize(44, 30));
            button->setToolTip(capitalized(PlimLook::backdropText(backdrop)));
            button->setObjectName(QString("backdrop_") + QString::fromUtf8(PlimLook::backdropText(backdrop).data()));
            button->setAutoRaise(true);
            m_backdrop->addButton(button, int(backdrop));
            swatches->addWidget(button, i / 4, i % 4);
            m_editing.push_back(button);
            ++i;
        }
        grid->addLayout(swatches);
        connect(m_backdrop, &QButtonGroup::idClicked, this,
            [setLook](int id) { setLook([id](PlimLook& look) { look.backdrop = PlimLook::Backdrop(id); }); });
        auto* sliders = new QGridLayout;
        sliders->setColumnStretch(1, 1);
        auto row = [&](int r, const QString& name, QSlider* s) {
            sliders->addWidget(secondaryLabel(name), r, 0);
            sliders->addWidget(s, r, 1);
        };
        m_padding = slider(0, 25, [setLook](int v) { setLook([v](PlimLook& l) { l.padding = v / 100.0; }); });
        m_padding->setObjectName("padding");
        m_corners = slider(0, 10, [setLook](int v) { setLook([v](PlimLook& l) { l.corners = v / 100.0; }); });
        m_shadow = slider(0, 12, [setLook](int v) { setLook([v](PlimLook& l) { l.shadow = v / 10.0; }); });
        row(0, "Padding", m_padding);
        row(1, "Corners", m_corners);
        row(2, "Shadow", m_shadow);
        grid->addLayout(sliders);
        column->addWidget(section("Look", body));
    }

    // Pointer.
    {
        auto* body = new QWidget;
        auto* box = new QVBoxLayout(body);
        box->setContentsMargins(0, 0, 0, 0);
        m_glide = check("Smooth the pointer's moves", [setLook](bool on) { setLook([on](PlimLook& l) { l.cursorGlide = on; }); });
        m_clickRings = check("Rings where you click", [setLook](bool on) { setLook([on](PlimLook& l) { l.clickRings = on; }); });
        m_spotlight = check("Spotlight around the pointer", [setLook](bool on) { setLook([on](PlimLook& l) { l.spotlight = on; }); });
        box->addWidget(m_glide);
        box->addWidget(m_clickRings);
        box->addWidget(m_spotlight);
        column->addWidget(section("Pointer", body));
    }

    // Zoom: the selected block's style and level.
    {
        auto* body = new QWidget;
        auto* box = new QVBoxLayout(body);
        box->setContentsMargins(0, 0, 0, 0);
        m_zoomHint = secondaryLabel("Select a zoom block on the timeline to change its style and level.");
        box->addWidget(m_zoomHint);
        m_zoomBlock = new QWidget;
        auto* grid = new QGridLayout(m_zoomBlock);
        grid->setContentsMargins(0, 0, 0, 0);
        grid->setColumnStretch(1, 1);
        m_zoomStyle = new QComboBox;
        m_zoomStyle->setObjectName("zoomStyle");
        m_zoomStyle->addItem("As the stage", QString());
        for (ZoomStyle style : allZoomStyles)
            m_zoomStyle->addItem(capitalized(zoomStyleText(style)), QString::fromUtf8(zoomStyleText(style).data()));
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
        box->addWidget(m_zoomBlock);
        m_zoomBlur = check("Motion blur while zooming", [setLook](bool on) { setLook([on](PlimLook& l) { l.zoomBlur = on; }); });
        box->addWidget(m_zoomBlur);
        m_editing.push_back(m_zoomStyle);
        column->addWidget(section("Zoom", body));
    }

    // Camera bubble, keycaps, captions, dead air.
    {
        auto* body = new QWidget;
        auto* box = new QVBoxLayout(body);
        box->setContentsMargins(0, 0, 0, 0);
        m_bubble = check("Show the camera bubble", [setLook](bool on) { setLook([on](PlimLook& l) { l.cameraBubble = on; }); });
        box->addWidget(m_bubble);
        auto* corners = new QHBoxLayout;
        corners->addWidget(secondaryLabel("Place"));
        m_bubbleCorner = new QButtonGroup(this);
        const std::pair<PlimLook::BubbleCorner, const char*> places[] = {{PlimLook::BubbleCorner::tl, "↖"},
            {PlimLook::BubbleCorner::tr, "↗"}, {PlimLook::BubbleCorner::bl, "↙"}, {PlimLook::BubbleCorner::br, "↘"}};
        for (const auto& [corner, arrow] : places) {
            auto* button = new QPushButton(QString::fromUtf8(arrow));
            button->setCheckable(true);
            button->setFixedWidth(36);
            button->setToolTip(capitalized(PlimLook::bubbleCornerText(corner)));
            m_bubbleCorner->addButton(button, int(corner));
            corners->addWidget(button);
            m_editing.push_back(button);
        }
        corners->addStretch(1);
        connect(m_bubbleCorner, &QButtonGroup::idClicked, this,
            [setLook](int id) { setLook([id](PlimLook& l) { l.bubbleCorner = PlimLook::BubbleCorner(id); }); });
        box->addLayout(corners);
        auto* shapeRow = new QHBoxLayout;
        shapeRow->addWidget(secondaryLabel("Shape"));
        m_bubbleShape = new QButtonGroup(this);
        for (const char* shape : {"circle", "card"}) {
            auto* button = new QPushButton(capitalized(shape));
            button->setCheckable(true);
            button->setProperty("shape", QString(shape));
            m_bubbleShape->addButton(button);
            shapeRow->addWidget(button);
            m_editing.push_back(button);
        }
        shapeRow->addStretch(1);
        connect(m_bubbleShape, &QButtonGroup::buttonClicked, this, [this](QAbstractButton* button) {
            if (!m_refreshing)
                m_document.setCameraShape(button->property("shape").toString().toStdString());
        });
        box->addLayout(shapeRow);
        auto* sizeRow = new QHBoxLayout;
        sizeRow->addWidget(secondaryLabel("Size"));
        m_bubbleSize = slider(4, 25, [this](int v) { m_document.setCameraScale(v / 10.0); });
        sizeRow->addWidget(m_bubbleSize, 1);
        box->addLayout(sizeRow);
        column->addWidget(section("Camera", body));

        auto* more = new QWidget;
        auto* moreBox = new QVBoxLayout(more);
        moreBox->setContentsMargins(0, 0, 0, 0);
        m_keys = check("Keycaps for the keys you pressed", [setLook](bool on) { setLook([on](PlimLook& l) { l.keys = on; }); });
        m_captions = check("Captions", [setLook](bool on) { setLook([on](PlimLook& l) { l.captions = on; }); });
        m_deadAir = check("Speed up dead air", [setLook](bool on) { setLook([on](PlimLook& l) { l.deadAir = on; }); });
        moreBox->addWidget(m_keys);
        moreBox->addWidget(m_captions);
        m_generateCaptions = new QPushButton("Generate captions");
        m_generateCaptions->setObjectName("generateCaptions");
        m_generateCaptions->setToolTip("Transcribe the plim's speech on this computer into its captions");
        connect(m_generateCaptions, &QPushButton::clicked, this, [this] {
            if (onGenerateCaptions)
                onGenerateCaptions();
        });
        m_editing.push_back(m_generateCaptions);
        moreBox->addWidget(m_generateCaptions);
        moreBox->addWidget(m_deadAir);
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
            if (auto saved = m_looks.save(name, m_document.edits().look.value_or(PlimLook{})); !saved) {
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

void Inspector::refresh()
{
    m_refreshing = true;
    const PlimLook look = m_document.edits().look.value_or(PlimLook{});
    if (auto* button = m_shape->button(int(look.shape)))
        button->setChecked(true);
    if (auto* button = m_backdrop->button(int(look.backdrop)))
        button->setChecked(true);
    if (!m_padding->isSliderDown())
        m_padding->setValue(int(std::lround(look.padding * 100)));
    if (!m_corners->isSliderDown())
        m_corners->setValue(int(std::lround(look.corners * 100)));
    if (!m_shadow->isSliderDown())
        m_shadow->setValue(int(std::lround(look.shadow * 10)));
    m_glide->setChecked(look.cursorGlide);
    m_clickRings->setChecked(look.clickRings);
    m_spotlight->setChecked(look.spotlight);
    m_zoomBlur->setChecked(look.zoomBlur);
    m_bubble->setChecked(look.cameraBubble);
    if (auto* button = m_bubbleCorner->button(int(look.bubbleCorner)))
        button->setChecked(true);
    const EditPlan& plan = m_document.edits().plan;
    for (QAbstractButton* button : m_bubbleShape->buttons())
        button->setChecked(button->property("shape").toString().toStdString() == plan.cameraShape.value_or("circle"));
    if (!m_bubbleSize->isSliderDown())
        m_bubbleSize->setValue(int(std::lround(plan.cameraScale.value_or(1.0) * 10)));
    m_keys->setChecked(look.keys);
    m_captions->setChecked(look.captions);
    m_deadAir->setChecked(look.deadAir);

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
