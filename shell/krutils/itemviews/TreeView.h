#ifndef UTILS_TREEVIEW_H
#define UTILS_TREEVIEW_H

#include <krutils/View.h>
#include <krutils/krutils_export.h>

#include <QTreeView>

namespace Utils {

/// A QTreeView that activates its current item on Return or Enter and keeps an activation mode
/// (see Utils::View). It lives on the GUI thread, as every widget does.
class KRUTILS_EXPORT TreeView : public View<QTreeView>
{
    Q_OBJECT

public:
    /// A tree view with the platform's default activation mode.
    explicit TreeView(QWidget *parent = nullptr);
    ~TreeView() override;
};

} // namespace Utils

#endif // UTILS_TREEVIEW_H
