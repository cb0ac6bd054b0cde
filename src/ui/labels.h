#pragma once
// The label styles the windows share: a bold heading over a group of settings and a
// quieter, wrapped line for what explains it. GUI thread only.

#include <QString>

class QLabel;

namespace plim {

QLabel* headingLabel(const QString& text);
QLabel* secondaryLabel(const QString& text = {});

} // namespace plim
