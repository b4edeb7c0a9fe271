#ifndef UTILS_LISTWIDGET_H
#define UTILS_LISTWIDGET_H

#include <krutils/View.h>
#include <krutils/krutils_export.h>

#include <QListWidget>

namespace Utils {

/// A QListWidget that activates its current item on Return or Enter and keeps an activation mode
/// (see Utils::View). It lives on the GUI thread, as every widget does.
class KRUTILS_EXPORT ListWidget : public View<QListWidget>
{
    Q_OBJECT

public:
    /// A list widget with the platform's default activation mode.
    explicit ListWidget(QWidget *parent = nullptr);
    ~ListWidget() override;
};

} // namespace Utils

#endif // UTILS_LISTWIDGET_H
