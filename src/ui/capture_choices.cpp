#include "ui/capture_choices.h"

#include "base/json.h"
#include "base/settings.h"
#include "capture/capture_quality.h"

#include <QComboBox>

namespace plim {

namespace {

QComboBox* makeBox(SettingsStore& settings, const char* key, const QList<std::pair<QString, QVariant>>& items, int current,
    std::function<void(const QString&)> onProblem)
{
    auto* box = new QComboBox;
    for (const auto& [text, value] : items)
        box->addItem(text, value);
    box->setCurrentIndex(std::max(0, current));
    QObject::connect(box, &QComboBox::activated, box, [box, &settings, key, onProblem](int index) {
        const QVariant value = box->itemData(index);
        auto kept = value.typeId() == QMetaType::Int ? settings.setValue(key, value.toInt())
                                                    : settings.setValue(key, value.toString().toStdString());
        if (!kept && onProblem)
            onProblem(QString::fromStdString(kept.error().sentence));
    });
    return box;
}

} // namespace

QComboBox* makeQualityBox(SettingsStore& settings, std::function<void(const QString&)> onProblem)
{
    QList<std::pair<QString, QVariant>> items;
    const CaptureQuality current = CaptureQualityRules::fromSettings(settings);
    int index = 0;
    for (auto [quality, text] : {std::pair{CaptureQuality::native, "As the screen shows it"}, {CaptureQuality::q2160p, "Up to 4K (2160p)"},
             {CaptureQuality::q1440p, "Up to 1440p"}, {CaptureQuality::q1080p, "Up to 1080p"}, {CaptureQuality::q720p, "Up to 720p"}}) {
        if (quality == current)
            index = int(items.size());
        items.push_back({QString::fromUtf8(text), QString::fromUtf8(CaptureQualityRules::rawValue(quality).data())});
    }
    auto* box = makeBox(settings, CaptureQualityRules::settingKey, items, index, std::move(onProblem));
    box->setObjectName(QStringLiteral("quality"));
    return box;
}

QComboBox* makeFrameRateBox(SettingsStore& settings, std::function<void(const QString&)> onProblem)
{
    const int current = CaptureQualityRules::frameRateFromSettings(settings);
    auto* box = makeBox(settings, CaptureQualityRules::frameRateKey,
        {{QStringLiteral("60 frames a second"), 60}, {QStringLiteral("30 frames a second"), 30}}, current == 30 ? 1 : 0,
        std::move(onProblem));
    box->setObjectName(QStringLiteral("frameRate"));
    return box;
}

} // namespace plim
