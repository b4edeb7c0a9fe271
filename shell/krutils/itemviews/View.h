#ifndef UTILS_VIEW_H
#define UTILS_VIEW_H

#include <QAbstractItemView>
#include <QKeyEvent>
#include <QVariant>

namespace Utils {

/// How a view's items are activated, for the application's style to read from the view's
/// dynamic property "ActivationMode": false for double-click, true for single click, absent for
/// the platform's default.
enum ActivationMode {
    /// Items are activated by a double click.
    DoubleClickActivation = 0,
    /// Items are activated by a single click.
    SingleClickActivation = 1,
    /// The platform's (the style's) choice.
    PlatformDefaultActivation = 2
};

/// An item view that activates its current item on Return or Enter (without modifiers, and not
/// while an editor is open), and keeps an activation mode in the "ActivationMode" property.
/// Use it through ListView, ListWidget, TreeView and TreeWidget.
///
/// Like every widget, a view lives on the GUI thread: create it, call it and give it its model
/// there (a model it shows, such as a Utils::TreeModel, belongs to the same thread).
template<class Base> class View : public Base
{
public:
    /// A view with the platform's default activation mode.
    explicit View(QWidget *parent = nullptr) : Base(parent) { }

    /// Stores `mode` in the "ActivationMode" property (no property for the platform default).
    void setActivationMode(ActivationMode mode)
    {
        // The property alone holds the mode, so a style or delegate can read and change it.
        if (mode == PlatformDefaultActivation)
            Base::setProperty(activationModeName, QVariant());
        else
            Base::setProperty(activationModeName, QVariant(bool(mode)));
    }

    /// The mode the "ActivationMode" property holds now, whoever set it.
    ActivationMode activationMode() const
    {
        const QVariant mode = Base::property(activationModeName);
        if (!mode.isValid())
            return PlatformDefaultActivation;
        return mode.toBool() ? SingleClickActivation : DoubleClickActivation;
    }

protected:
    /// Emits `activated()` for the current item on Return or Enter (see above); every other key
    /// goes to the base view.
    void keyPressEvent(QKeyEvent *event) override
    {
        // Keypad Enter carries the keypad modifier and goes to the base on purpose, as do
        // Shift+Return and a Return that commits an open editor.
        const bool activationKey = event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter;
        if (activationKey && event->modifiers() == Qt::NoModifier && Base::currentIndex().isValid()
            && Base::state() != QAbstractItemView::EditingState) {
            emit Base::activated(Base::currentIndex());
            return;
        }
        Base::keyPressEvent(event);
    }

private:
    static constexpr const char *activationModeName = "ActivationMode";
};

} // namespace Utils

#endif // UTILS_VIEW_H
