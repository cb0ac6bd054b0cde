#pragma once
// The recording choices the record panel and the settings window both offer: the capture
// quality and the frame rate, each a combo box that reads the setting and writes it back
// as soon as the user picks.
//
// Threads: GUI thread only.

#include <QString>

#include <functional>

class QComboBox;

namespace plim {

class SettingsStore;

// `onProblem` gets the sentence when a choice could not be kept.
QComboBox* makeQualityBox(SettingsStore& settings, std::function<void(const QString&)> onProblem);
QComboBox* makeFrameRateBox(SettingsStore& settings, std::function<void(const QString&)> onProblem);

} // namespace plim
