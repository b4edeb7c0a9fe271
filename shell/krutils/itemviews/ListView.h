#ifndef UTILS_LISTVIEW_H
#define UTILS_LISTVIEW_H

#include <krutils/View.h>
#include <krutils/krutils_export.h>

#include <QListView>

namespace Utils {

/// A QListView that activates its current item on Return or Enter and keeps an activation mode
/// (see Utils::View). It lives on the GUI thread, as every widget does.
class KRUTILS_EXPORT ListView : public View<QListView>
{
    Q_OBJECT

public:
    /// A list view with the platform's default activation mode.
    explicit ListView(QWidget *parent = nullptr);
    ~ListView() override;
};

} // namespace Utils

#endif // UTILS_LISTVIEW_H
