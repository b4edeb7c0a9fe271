#ifndef TREEMODELTESTSUPPORT_H
#define TREEMODELTESTSUPPORT_H

// Helpers of the tree model's tests: an item with a name, trees written as "a(b(d),c)", and the
// soft assertions a piece of code raised.

#include "KrTestSupport.h"

#include <krutils/TreeModel.h>

#include <QStringList>

#include <functional>

using Utils::TreeItem;
using Utils::TreeModel;

// An item with one editable name (column 0) and a second column with its level. It may be lazy:
// populate() then adds `lazyRows` children, and reports each population through a hook.
class NamedItem : public TreeItem
{
public:
    explicit NamedItem(const QString &name, int lazyRows = 0) : m_name(name), m_lazyRows(lazyRows)
    {
        setLazy(lazyRows > 0);
    }
    ~NamedItem() override
    {
        if (destroyed)
            destroyed->append(m_name);
    }

    QString name() const { return m_name; }

    QVariant data(int column, int role) const override
    {
        if (role != Qt::DisplayRole && role != Qt::EditRole)
            return QVariant();
        if (column == 0)
            return m_name;
        if (column == 1)
            return level();
        return QVariant();
    }

    bool setData(int column, const QVariant &data, int role) override
    {
        if (column != 0 || role != Qt::EditRole)
            return false;
        m_name = data.toString();
        return true;
    }

    void populate() override
    {
        ++populations;
        for (int i = 0; i < m_lazyRows; ++i)
            appendChild(new NamedItem(m_name + QLatin1Char('.') + QString::number(i)));
        if (onPopulate)
            onPopulate(this);
    }

    int populations = 0;
    std::function<void(NamedItem *)> onPopulate;
    QStringList *destroyed = nullptr;

private:
    QString m_name;
    int m_lazyRows;
};

inline NamedItem *named(TreeItem *item)
{
    return static_cast<NamedItem *>(item);
}

inline const NamedItem *named(const TreeItem *item)
{
    return static_cast<const NamedItem *>(item);
}

// "a(b(d),c)": the names of the subtree in pre-order, children in brackets.
inline QString shape(const TreeItem *item)
{
    QString text = item->data(0, Qt::DisplayRole).toString();
    const QVector<TreeItem *> children = item->children();
    if (children.isEmpty())
        return text;
    QStringList parts;
    for (const TreeItem *child : children)
        parts.append(shape(child));
    return text + QLatin1Char('(') + parts.join(QLatin1Char(',')) + QLatin1Char(')');
}

// The same through the model's interface only.
inline QString modelShape(const QAbstractItemModel &model, const QModelIndex &index)
{
    QString text = model.data(index).toString();
    const int rows = model.rowCount(index);
    if (rows == 0)
        return text;
    QStringList parts;
    for (int row = 0; row < rows; ++row)
        parts.append(modelShape(model, model.index(row, 0, index)));
    return text + QLatin1Char('(') + parts.join(QLatin1Char(',')) + QLatin1Char(')');
}

// Builds a tree from "a(b(d),c)"; names ending in "*N" make lazy items with N rows.
inline TreeItem *buildTree(const QString &text, int &pos)
{
    int end = pos;
    while (end < text.size() && !QStringLiteral("(),").contains(text.at(end)))
        ++end;
    const QString token = text.mid(pos, end - pos);
    const int star = token.indexOf(QLatin1Char('*'));
    auto item = star < 0 ? new NamedItem(token)
                         : new NamedItem(token.left(star), token.mid(star + 1).toInt());
    pos = end;
    if (pos < text.size() && text.at(pos) == QLatin1Char('(')) {
        do {
            ++pos;
            item->appendChild(buildTree(text, pos));
        } while (text.at(pos) == QLatin1Char(','));
        ++pos; // ')'
    }
    return item;
}

inline TreeItem *buildTree(const QString &text)
{
    int pos = 0;
    return buildTree(text, pos);
}

// Looks an item up by name in pre-order.
inline TreeItem *find(TreeItem *root, const QString &name)
{
    TreeItem *found = nullptr;
    root->walkTree([&](TreeItem *item) {
        if (!found && item->data(0, Qt::DisplayRole).toString() == name)
            found = item;
    });
    return found;
}

inline QStringList names(const Utils::UntypedTreeLevelItems &items)
{
    QStringList result;
    for (TreeItem *item : items)
        result.append(item->data(0, Qt::DisplayRole).toString());
    return result;
}

inline QStringList softAsserts(const MessageCapture &capture)
{
    QStringList texts;
    for (const CapturedMessage &message : capture.messages()) {
        if (message.type == QtDebugMsg && message.text.startsWith(QLatin1String("SOFT ASSERT: ")))
            texts.append(message.text.mid(13));
    }
    return texts;
}

inline QString assertText(const char *condition, int line,
                          const char *file = "shell/krutils/TreeModel")
{
    return QStringLiteral("\"%1\" in file %2, line %3")
            .arg(QLatin1String(condition), QLatin1String(file))
            .arg(line);
}

#endif // TREEMODELTESTSUPPORT_H
