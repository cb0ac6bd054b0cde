#include "ui/home_window.h"

#include "capture/desktop.h"
#include "capture/recording_marker.h"
#include "library/plim_store.h"
#include "media/movie_reader.h"
#include "share/plim_thumbs.h"
#include "share/share_options.h"
#include "ui/desktop_services.h"
#include "ui/plim_files.h"

#include <QAbstractListModel>
#include <QAction>
#include <QApplication>
#include <QDateTime>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QMimeData>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QStackedWidget>
#include <QStyledItemDelegate>
#include <QThreadPool>
#include <QToolButton>
#include <QUrl>
#include <QVBoxLayout>

#include <algorithm>
#include <atomic>
#include <map>
#include <utility>

namespace plim {

namespace {

constexpr int posterWidth = 224;
constexpr int posterHeight = 126;
constexpr int textHeight = 44;
constexpr int cardMargin = 8;

// What the worker finds out about one movie.
struct Details {
    QImage poster;
    std::optional<double> seconds;
    QString problem;
    bool read = false; // the worker has been at it
};

fs::path movieOf(const PlimRecord& plim)
{
    if (plim.rawURL)
        return *plim.rawURL;
    return plim.stagedURL ? *plim.stagedURL : plim.cameraURL.value_or(fs::path());
}

QString dateText(SystemTime instant)
{
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(instant.time_since_epoch()).count();
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(ms);
    const QDate today = QDate::currentDate();
    if (when.date() == today)
        return QStringLiteral("Today, ") + when.toString(QStringLiteral("HH:mm"));
    if (when.date() == today.addDays(-1))
        return QStringLiteral("Yesterday, ") + when.toString(QStringLiteral("HH:mm"));
    return when.toString(when.date().year() == today.year() ? QStringLiteral("d MMM, HH:mm") : QStringLiteral("d MMM yyyy"));
}

} // namespace

enum PlimRole { lineRole = Qt::UserRole + 1, posterRole, posterReadRole };

// The plims as the grid shows them; posters and lengths arrive later from the worker.
class PlimGridModel final : public QAbstractListModel {
public:
    struct Entry {
        PlimRecord record;
        fs::path movie;
        Details details;
        bool asked = false;
    };

    using QAbstractListModel::QAbstractListModel;

    int rowCount(const QModelIndex& parent) const override { return parent.isValid() ? 0 : int(m_entries.size()); }

    QVariant data(const QModelIndex& index, int role) const override
    {
        if (!index.isValid() || index.row() >= int(m_entries.size()))
            return {};
        const Entry& e = m_entries[size_t(index.row())];
        switch (role) {
        case Qt::DisplayRole:
        case Qt::EditRole:
            return QString::fromStdString(e.record.id);
        case Qt::ToolTipRole:
            return e.details.problem.isEmpty() ? toQString(e.movie) : e.details.problem;
        case lineRole: {
            QString line = dateText(e.record.createdAt);
            if (e.details.seconds)
                line = QString::fromStdString(ShareOptions::clock(*e.details.seconds)) + QStringLiteral("  ·  ") + line;
            return line;
        }
        case posterRole:
            return e.details.poster;
        case posterReadRole:
            return e.details.read;
        default:
            return {};
        }
    }

    Qt::ItemFlags flags(const QModelIndex& index) const override
    {
        return QAbstractListModel::flags(index) | Qt::ItemIsEditable | Qt::ItemIsDragEnabled;
    }

    // A card dragged out of the window is its movie, for a file manager or a chat to take.
    QStringList mimeTypes() const override { return {QStringLiteral("text/uri-list")}; }
    QMimeData* mimeData(const QModelIndexList& indexes) const override
    {
        QList<QUrl> urls;
        for (const QModelIndex& index : indexes)
            if (index.isValid() && index.row() < int(m_entries.size()))
                urls << QUrl::fromLocalFile(toQString(m_entries[size_t(index.row())].movie));
        auto* data = new QMimeData;
        data->setUrls(urls);
        return data;
    }

    bool setData(const QModelIndex& index, const QVariant& value, int role) override
    {
        if (role != Qt::EditRole || !index.isValid() || !onRename)
            return false;
        // After the editor has closed: the rename lists the library again.
        QMetaObject::invokeMethod(this, [this, plim = m_entries[size_t(index.row())].record, name = value.toString()] {
            onRename(plim, name);
        }, Qt::QueuedConnection);
        return true;
    }

    // Takes the store's list, keeping what is known of movies already shown.
    void setPlims(const std::vector<PlimRecord>& plims)
    {
        std::map<fs::path, Entry> known;
        for (const auto& e : m_entries)
            known[e.movie] = e;
        std::vector<Entry> entries;
        for (const auto& record : plims) {
            Entry e;
            e.record = record;
            e.movie = movieOf(record);
            if (auto it = known.find(e.movie); it != known.end() && it->second.record.rawBytes == record.rawBytes) {
                e.details = it->second.details;
                e.asked = it->second.asked;
            }
            entries.push_back(std::move(e));
        }
        const bool sameList = std::ranges::equal(entries, m_entries,
            [](const Entry& a, const Entry& b) { return a.movie == b.movie && a.record.id == b.record.id; });
        if (sameList) {
            // In place, so a selection or a rename being typed survives the folder's changes.
            m_entries = std::move(entries);
            if (!m_entries.empty())
                emit dataChanged(index(0), index(int(m_entries.size()) - 1));
            return;
        }
        beginResetModel();
        m_entries = std::move(entries);
        endResetModel();
    }

    void setDetails(const fs::path& movie, const Details& details)
    {
        for (size_t i = 0; i < m_entries.size(); ++i)
            if (m_entries[i].movie == movie) {
                m_entries[i].details = details;
                emit dataChanged(index(int(i)), index(int(i)));
            }
    }

    std::vector<Entry>& entries() { return m_entries; }
    const std::vector<Entry>& entries() const { return m_entries; }

    std::function<void(const PlimRecord&, const QString&)> onRename;

private:
    std::vector<Entry> m_entries;
};

namespace {

// One card: the poster over the name and the length and date.
class PlimCardDelegate final : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    QSize sizeHint(const QStyleOptionViewItem&, const QModelIndex&) const override
    {
        return {posterWidth + 2 * cardMargin, posterHeight + textHeight + 2 * cardMargin};
    }

    void paint(QPainter* p, const QStyleOptionViewItem& option, const QModelIndex& index) const override
    {
        p->save();
        p->setRenderHint(QPainter::Antialiasing);
        const QRect card = option.rect.adjusted(2, 2, -2, -2);
        const QPalette& pal = option.palette;
        if (option.state & QStyle::State_Selected) {
            p->setPen(Qt::NoPen);
            p->setBrush(pal.highlight().color().lighter(170));
            p->drawRoundedRect(card, 8, 8);
        }
        const QRect poster(card.x() + cardMargin - 2, card.y() + cardMargin - 2, posterWidth, posterHeight);
        QPainterPath clip;
        clip.addRoundedRect(poster, 6, 6);
        p->setClipPath(clip);
        p->fillRect(poster, QColor(0x2b, 0x2d, 0x33));
        const QImage image = index.data(posterRole).value<QImage>();
        if (!image.isNull()) {
            QImage fitted = image.scaled(poster.size(), Qt::KeepAspectRatio, Qt::SmoothTransformation);
            p->drawImage(poster.x() + (poster.width() - fitted.width()) / 2, poster.y() + (poster.height() - fitted.height()) / 2,
                fitted);
        } else {
            p->setPen(QColor(0x9a, 0x9d, 0xa6));
            p->drawText(poster, Qt::AlignCenter,
                index.data(posterReadRole).toBool() ? QStringLiteral("No picture") : QStringLiteral("Drawing poster…"));
        }
        p->setClipping(false);
        QFont bold = option.font;
        bold.setBold(true);
        p->setFont(bold);
        p->setPen(pal.text().color());
        const QRect nameRect(poster.x(), poster.bottom() + 6, posterWidth, 18);
        p->drawText(nameRect, Qt::AlignLeft | Qt::AlignVCenter,
            QFontMetrics(bold).elidedText(index.data(Qt::DisplayRole).toString(), Qt::ElideMiddle, posterWidth));
        p->setFont(option.font);
        p->setPen(pal.placeholderText().color());
        p->drawText(QRect(poster.x(), nameRect.bottom() + 2, posterWidth, 16), Qt::AlignLeft | Qt::AlignVCenter,
            index.data(lineRole).toString());
        p->restore();
    }

    void updateEditorGeometry(QWidget* editor, const QStyleOptionViewItem& option, const QModelIndex&) const override
    {
        const QRect card = option.rect.adjusted(2, 2, -2, -2);
        editor->setGeometry(card.x() + cardMargin - 4, card.y() + cardMargin + posterHeight + 2, posterWidth + 4, 24);
    }
};

} // namespace

struct HomeWindow::Worker {
    QThreadPool pool;
    std::shared_ptr<std::atomic<bool>> alive = std::make_shared<std::atomic<bool>>(true);
    Worker() { pool.setMaxThreadCount(1); }
    ~Worker()
    {
        alive->store(false);
        pool.clear();
        pool.waitForDone();
    }
};

HomeWindow::HomeWindow(fs::path libraryFolder, QWidget* parent)
    : QWidget(parent), m_folder(std::move(libraryFolder)), m_store(std::make_unique<PlimStore>(m_folder)),
      m_worker(std::make_unique<Worker>())
{
    setObjectName(QStringLiteral("home"));
    setWindowTitle(QStringLiteral("Plim"));
    resize(800, 560);

    auto* title = new QLabel(QStringLiteral("Library"));
    QFont titleFont = title->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.5);
    titleFont.setBold(true);
    title->setFont(titleFont);
    m_count = new QLabel;
    m_count->setObjectName(QStringLiteral("plimCount"));
    m_count->setForegroundRole(QPalette::PlaceholderText);
    auto* record = new QPushButton(QStringLiteral("Record"));
    record->setObjectName(QStringLiteral("record"));
    connect(record, &QPushButton::clicked, this, [this] {
        if (onRecord)
            onRecord();
    });
    auto* header = m_header = new QHBoxLayout;
    header->addWidget(title);
    header->addSpacing(8);
    header->addWidget(m_count, 0, Qt::AlignBottom);
    header->addStretch();
    header->addWidget(record);

    m_model = new PlimGridModel(this);
    m_model->onRename = [this](const PlimRecord& plim, const QString& name) { renamePlim(plim, name); };
    m_grid = new QListView;
    m_grid->setObjectName(QStringLiteral("plimGrid"));
    m_grid->setViewMode(QListView::IconMode);
    m_grid->setResizeMode(QListView::Adjust);
    m_grid->setMovement(QListView::Static);
    m_grid->setUniformItemSizes(true);
    m_grid->setSpacing(6);
    m_grid->setSelectionMode(QAbstractItemView::SingleSelection);
    m_grid->setEditTriggers(QAbstractItemView::EditKeyPressed);
    m_grid->setFrameShape(QFrame::NoFrame);
    m_grid->setDragEnabled(true);
    m_grid->setDragDropMode(QAbstractItemView::DragOnly);
    m_grid->setDefaultDropAction(Qt::CopyAction);
    m_grid->setItemDelegate(new PlimCardDelegate(m_grid));
    m_grid->setModel(m_model);
    m_grid->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(m_grid, &QListView::customContextMenuRequested, this, &HomeWindow::showMenu);
    connect(m_grid, &QListView::activated, this, [this](const QModelIndex& index) {
        openPlim(m_model->entries()[size_t(index.row())].record);
    });

    auto* empty = new QWidget;
    empty->setObjectName(QStringLiteral("emptyLibrary"));
    auto* emptyText = new QLabel(QStringLiteral("No plims yet. Record your screen and the plim appears here."));
    emptyText->setObjectName(QStringLiteral("emptyText"));
    emptyText->setAlignment(Qt::AlignCenter);
    emptyText->setWordWrap(true);
    auto* emptyRecord = new QPushButton(QStringLiteral("Record"));
    emptyRecord->setObjectName(QStringLiteral("emptyRecord"));
    connect(emptyRecord, &QPushButton::clicked, record, &QPushButton::click);
    auto* emptyLayout = new QVBoxLayout(empty);
    emptyLayout->addStretch();
    emptyLayout->addWidget(emptyText);
    emptyLayout->addSpacing(12);
    emptyLayout->addWidget(emptyRecord, 0, Qt::AlignHCenter);
    emptyLayout->addStretch();

    m_pages = new QStackedWidget;
    m_pages->addWidget(m_grid);
    m_pages->addWidget(empty);

    m_message = new QLabel;
    m_message->setObjectName(QStringLiteral("message"));
    m_message->setWordWrap(true);
    m_message->hide();

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 14, 16, 12);
    layout->addLayout(header);
    layout->addWidget(m_pages, 1);
    layout->addWidget(m_message);

    // A new user's library folder does not exist until the first recording; watch it from now.
    std::error_code ec;
    fs::create_directories(m_folder, ec);
    m_store->refresh();
    reload();
    auto watching = m_store->startWatching([this] {
        QMetaObject::invokeMethod(this, [this] { reload(); }, Qt::QueuedConnection);
    });
    if (!watching)
        say(QString::fromStdString(watching.error().sentence));
}

HomeWindow::~HomeWindow()
{
    m_store->stopWatching();
    m_worker.reset();
}

void HomeWindow::reload()
{
    std::string selected = std::exchange(m_renamedTo, {});
    if (auto plim = current(); selected.empty() && plim)
        selected = plim->id;
    // A movie still being recorded (its marker's process runs) is listed once it is finished.
    std::vector<PlimRecord> listed;
    for (auto& plim : m_store->plims()) {
        if (plim.rawURL) {
            auto marker = RecordingMarker::read(RecordingMarker::fileBeside(*plim.rawURL));
            if (marker && marker->processIsAlive())
                continue;
        }
        listed.push_back(std::move(plim));
    }
    m_model->setPlims(listed);
    const auto& entries = m_model->entries();
    for (size_t i = 0; i < entries.size(); ++i)
        if (entries[i].record.id == selected)
            m_grid->setCurrentIndex(m_model->index(int(i)));
    m_pages->setCurrentIndex(entries.empty() ? 1 : 0);
    m_count->setText(entries.empty() ? QString()
            : entries.size() == 1    ? QStringLiteral("1 plim")
                                     : QStringLiteral("%1 plims").arg(entries.size()));
    QStringList notices;
    for (const auto& notice : m_store->takeNotices())
        notices << QString::fromStdString(notice);
    if (!notices.isEmpty())
        say(notices.join(QLatin1Char(' ')));
    requestDetails();
}

std::vector<PlimRecord> HomeWindow::plims() const
{
    std::vector<PlimRecord> out;
    for (const auto& e : m_model->entries())
        out.push_back(e.record);
    return out;
}

void HomeWindow::say(const QString& sentence)
{
    m_message->setText(sentence);
    m_message->setVisible(!sentence.isEmpty());
}

void HomeWindow::addHeaderAction(QAction* action)
{
    auto* button = new QToolButton;
    button->setDefaultAction(action);
    button->setToolButtonStyle(Qt::ToolButtonTextOnly);
    button->setObjectName(action->objectName());
    m_header->insertWidget(m_header->count() - 1, button);
}

void HomeWindow::requestDetails()
{
    for (auto& e : m_model->entries()) {
        if (e.asked)
            continue;
        e.asked = true;
        const fs::path movie = e.movie;
        auto alive = m_worker->alive;
        m_worker->pool.start([this, movie, alive] {
            if (!alive->load())
                return;
            Details d;
            d.read = true;
            if (auto reader = MovieReader::create(movie))
                d.seconds = (*reader)->info().duration;
            std::optional<PlimThumbs::Drawn> thumbs;
            if (!PlimThumbs::isStale(movie))
                thumbs = PlimThumbs::read(movie);
            if (!thumbs && alive->load()) {
                auto drawn = PlimThumbs::draw(movie, desktopWallpaper());
                if (drawn) {
                    if (auto stored = PlimThumbs::store(*drawn, movie); !stored)
                        d.problem = QString::fromStdString(stored.error().sentence);
                    thumbs = std::move(*drawn);
                } else {
                    d.problem = QString::fromStdString(drawn.error().sentence);
                }
            }
            if (thumbs)
                d.poster = toQImage(thumbs->poster).scaled(posterWidth * 2, posterHeight * 2, Qt::KeepAspectRatio,
                    Qt::SmoothTransformation);
            if (alive->load())
                QMetaObject::invokeMethod(this, [this, movie, d] { m_model->setDetails(movie, d); }, Qt::QueuedConnection);
        });
    }
}

std::optional<PlimRecord> HomeWindow::current() const
{
    const QModelIndex index = m_grid->currentIndex();
    if (!index.isValid() || index.row() >= int(m_model->entries().size()))
        return std::nullopt;
    return m_model->entries()[size_t(index.row())].record;
}

void HomeWindow::openPlim(const PlimRecord& plim)
{
    if (onOpen)
        onOpen(movieOf(plim));
}

void HomeWindow::sharePlim(const PlimRecord& plim)
{
    if (onShare)
        onShare(movieOf(plim));
}

void HomeWindow::renamePlim(const PlimRecord& plim, const QString& newName)
{
    const std::string name = newName.trimmed().toStdString();
    auto renamed = plim::renamePlim(plim, name);
    say(renamed ? QString() : QString::fromStdString(renamed.error().sentence));
    if (renamed) {
        m_renamedTo = name;
        m_store->refresh();
        reload();
    }
}

void HomeWindow::trashPlim(const PlimRecord& plim)
{
    auto trashed = plim::trashPlim(plim);
    say(trashed ? QStringLiteral("\"%1\" was moved to the Trash; the file manager can put it back.")
                      .arg(QString::fromStdString(plim.id))
                : QString::fromStdString(trashed.error().sentence));
    // A new user's library folder does not exist until the first recording; watch it from now.
    std::error_code ec;
    fs::create_directories(m_folder, ec);
    m_store->refresh();
    reload();
}

void HomeWindow::showPlimInFileManager(const PlimRecord& plim)
{
    if (auto shown = showInFileManager(movieOf(plim)); !shown)
        say(QString::fromStdString(shown.error().sentence));
}

void HomeWindow::showMenu(const QPoint& at)
{
    const QModelIndex index = m_grid->indexAt(at);
    if (!index.isValid())
        return;
    m_grid->setCurrentIndex(index);
    const PlimRecord plim = m_model->entries()[size_t(index.row())].record;
    QMenu menu(this);
    menu.addAction(QStringLiteral("Open"), this, [this, plim] { openPlim(plim); });
    menu.addAction(QStringLiteral("Share…"), this, [this, plim] { sharePlim(plim); });
    menu.addSeparator();
    menu.addAction(QStringLiteral("Rename"), this, [this, index] { m_grid->edit(index); });
    menu.addAction(QStringLiteral("Show in File Manager"), this, [this, plim] { showPlimInFileManager(plim); });
    menu.addSeparator();
    menu.addAction(QStringLiteral("Move to Trash"), this, [this, plim] { trashPlim(plim); });
    menu.exec(m_grid->viewport()->mapToGlobal(at));
}

void HomeWindow::keyPressEvent(QKeyEvent* event)
{
    if (auto plim = current(); plim && (event->key() == Qt::Key_Delete || event->matches(QKeySequence::Delete))) {
        trashPlim(*plim);
        return;
    }
    QWidget::keyPressEvent(event);
}

} // namespace plim
