#include "ui/labels.h"

#include <QLabel>

namespace plim {

QLabel* headingLabel(const QString& text)
{
    auto* label = new QLabel(text);
    QFont font = label->font();
    font.setBold(true);
    label->setFont(font);
    return label;
}

QLabel* secondaryLabel(const QString& text)
{
    auto* label = new QLabel(text);
    label->setForegroundRole(QPalette::PlaceholderText);
    label->setWordWrap(true);
    return label;
}

} // namespace plim
