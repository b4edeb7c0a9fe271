#ifndef UTILS_TREEWIDGET_H
#define UTILS_TREEWIDGET_H

#include <krutils/View.h>
#include <krutils/krutils_export.h>

#include <QTreeWidget>

namespace Utils {

/// A QTreeWidget that activates its current item on Return or Enter and keeps an activation mode
/// (see Utils::View). It lives on the GUI thread, as every widget does.
class KRUTILS_EXPORT TreeWidget : public View<QTreeWidget>
{
    Q_OBJECT

public:
    /// A tree widget with the platform's default activation mode.
    explicit TreeWidget(QWidget *parent = nullptr);
    ~TreeWidget() override;
};

} // namespace Utils

#endif // UTILS_TREEWIDGET_H
