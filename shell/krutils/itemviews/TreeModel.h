#ifndef UTILS_TREEMODEL_H
#define UTILS_TREEMODEL_H

#include <krutils/UAssert.h>
#include <krutils/krutils_export.h>

#include <QAbstractItemModel>
#include <QStringList>
#include <QVector>

#include <functional>
#include <iterator>

namespace Utils {

class TreeItem;
class TreeModel;

/// Walks a subtree in pre-order. For every item, preVisit() decides whether the item and its
/// subtree are visited; postVisit() runs in any case, after the subtree. During visit(), level()
/// counts the items from the start of the walk down to the visited one: 1 for the start item.
/// A visitor walks on the thread of the items it visits.
class KRUTILS_EXPORT TreeItemVisitor
{
public:
    TreeItemVisitor() = default;
    /// A visitor is a plain value; a copy carries the level along.
    ///@{
    TreeItemVisitor(const TreeItemVisitor &) = default;
    TreeItemVisitor &operator=(const TreeItemVisitor &) = default;
    ///@}
    virtual ~TreeItemVisitor();

    /// Whether to visit `item` and its subtree; the default visits everything.
    virtual bool preVisit(TreeItem *item);
    /// Called for each visited item, before its subtree; does nothing by default.
    virtual void visit(TreeItem *item);
    /// Called for every item after its subtree, also for one that preVisit() declined; does
    /// nothing by default.
    virtual void postVisit(TreeItem *item);

    /// The depth of the visited item, counted from the start of the walk (see above).
    int level() const { return m_level; }

private:
    friend class TreeItem;
    int m_level = 0;
};

/// A node of a TreeModel. It owns its children and deletes them with itself; delete an item only
/// through its parent, or after TreeModel::removeItem() has taken it out.
///
/// Subclasses supply per-column data, flags and editing. A lazy item (setLazy(true)) creates its
/// children in populate(), which runs once, on the first rowCount() or child() call; insertions
/// into a lazy item emit no model signals, so populate() may simply call appendChild().
/// Contract violations are reported through Utils::writeAssertLocation() and give a neutral
/// result (a null item, an invalid index, no change).
///
/// Items are not thread-safe: once an item belongs to a model, it is used only on the model's
/// thread, like the model itself. A subtree that no model holds yet may be built on a worker
/// thread and handed over whole.
class KRUTILS_EXPORT TreeItem
{
public:
    TreeItem();
    /// An item that shows `displays`, one text per column, with the given Qt::ItemFlags.
    explicit TreeItem(const QStringList &displays,
                      int flags = Qt::ItemIsSelectable | Qt::ItemIsEnabled);
    virtual ~TreeItem();

    /// The parent item; null for a root and for an item taken out of its tree.
    virtual TreeItem *parent() const;
    /// The child at row `pos` (after populating a lazy item), or null past the last row. A
    /// negative `pos` is a contract violation.
    virtual TreeItem *child(int pos) const;
    /// Whether the item creates its children in populate() (setLazy()).
    virtual bool isLazy() const;
    /// The number of children, after populating a lazy item.
    virtual int rowCount() const;
    /// Creates the children of a lazy item; called once, by ensurePopulated(). Does nothing by
    /// default.
    virtual void populate();

    /// The display text of `column` for Qt::DisplayRole; an invalid QVariant otherwise.
    virtual QVariant data(int column, int role) const;
    /// Applies an edit of `column` and returns whether the item changed (TreeModel::setData()
    /// then tells the views). The default changes nothing and returns false.
    virtual bool setData(int column, const QVariant &data, int role);
    /// The item's flags, the same for every column: those given to the constructor or to
    /// setFlags().
    virtual Qt::ItemFlags flags(int column) const;

    /// Whether the item has children or can fetch some: canFetchMore() or a non-zero rowCount().
    virtual bool hasChildren() const;
    /// For items that fetch their children in steps, as QAbstractItemModel::canFetchMore() and
    /// fetchMore() describe; by default there is nothing to fetch.
    ///@{
    virtual bool canFetchMore() const;
    virtual void fetchMore();
    ///@}

    /// Adopts `item` as the last child, the first child, or the child at row `pos` (0 to
    /// rowCount()), and attaches it to the item's model. `item` must not have a parent. The views
    /// are told unless the item is lazy or not in a model.
    ///@{
    void appendChild(TreeItem *item);
    void prependChild(TreeItem *item);
    void insertChild(int pos, TreeItem *item);
    ///@}
    /// Deletes all children and tells the views.
    void removeChildren();
    /// Deletes all children without telling the model: for items that no view shows yet.
    void clear();
    /// Sorts the children with an unstable sort; views are told through a layout change.
    void sortChildren(const std::function<bool(const TreeItem *, const TreeItem *)> &lessThan);

    /// Tell the views that the item's row, or one of its cells, changed.
    ///@{
    void update();
    void updateColumn(int column);
    ///@}
    /// Asks the views to expand the item (TreeModel::requestExpansion).
    void expand();

    /// Pre-order walks of the subtree; both use the children as they are, without populating
    /// lazy items.
    ///@{
    void walkTree(TreeItemVisitor *visitor);
    void walkTree(std::function<void(TreeItem *)> f);
    ///@}

    /// The number of ancestors: 0 for a root, 1 for its children.
    int level() const;
    /// The item's index in column 0; invalid for the root. The item must belong to a model.
    QModelIndex index() const;

    /// The children as they are, without populating a lazy item.
    ///@{
    TreeItem *firstChild() const;
    TreeItem *lastChild() const;
    QVector<TreeItem *> children() const;
    ///@}

    /// The model the item belongs to, or null.
    TreeModel *model() const { return m_model; }
    /// Attaches the item and its subtree to `model`, whichever model they belonged to before.
    void setModel(TreeModel *model);

    /// Sets the flags that flags() gives for every column.
    void setFlags(Qt::ItemFlags flags);
    /// Makes the item lazy (see populate()); set it before the children are first asked for.
    void setLazy(bool on);
    /// Runs populate() on the first call when the item is lazy; does nothing afterwards.
    void ensurePopulated() const;

private:
    Q_DISABLE_COPY(TreeItem)
    friend class TreeModel;

    void propagateModel(TreeModel *model);
    int rowOf(const TreeItem *child) const;

    TreeItem *m_parent = nullptr;
    TreeModel *m_model = nullptr;
    QVector<TreeItem *> m_children;
    QStringList m_displays;
    bool m_lazy = false;
    mutable bool m_populated = false;
    Qt::ItemFlags m_flags = Qt::ItemIsSelectable | Qt::ItemIsEnabled;
    // The row the item was last found at in its parent; only a hint, checked before use.
    mutable int m_rowHint = 0;
};

/// All items at one depth below a start item, in pre-order from left to right: level 1 is the
/// start item's children, level 2 their children, and so on up to level 11. Branches that end
/// above the level contribute nothing; lazy items on the way are populated. Like the items, a
/// range and its iterators are used on the thread of the items' model.
///
///     for (Utils::TreeItem *position : model.untypedLevelItems(3))
///         ...
class KRUTILS_EXPORT UntypedTreeLevelItems
{
public:
    /// The deepest level a range reaches.
    enum { MaxLevel = 11 };

    /// A forward iterator over the range; `*it` is the current item. An iterator that has run
    /// past the end stays there.
    class const_iterator;

    /// The items at `level` (1 to MaxLevel) below `item`. A null `item` or a deeper level (with a
    /// warning) gives an empty range; a level below 1 is a contract violation.
    UntypedTreeLevelItems(TreeItem *item, int level = 1) : m_item(item), m_level(level) { }

    /// The bounds of the range, for range-based for loops.
    ///@{
    const_iterator begin() const;
    const_iterator end() const;
    ///@}

private:
    TreeItem *m_item;
    int m_level;
};

/// A place in an UntypedTreeLevelItems range: the path from the start item down to the current
/// item, with each step's row and row count. An iterator that has run past the end stays there.
class KRUTILS_EXPORT UntypedTreeLevelItems::const_iterator
{
public:
    /// The member types of a forward iterator over `TreeItem *`.
    ///@{
    using iterator_category = std::forward_iterator_tag;
    using value_type = TreeItem *;
    using difference_type = std::ptrdiff_t;
    using pointer = TreeItem *const *;
    using reference = TreeItem *;
    ///@}

    /// The current item.
    TreeItem *operator*() const { return m_item[m_depth]; }

    /// Moves on to the next item of the level; incrementing the end iterator is a contract
    /// violation.
    ///@{
    const_iterator &operator++();
    const_iterator operator++(int)
    {
        const_iterator previous = *this;
        ++*this;
        return previous;
    }
    ///@}

    /// Whether both iterators stand at the same item, or both at the end.
    ///@{
    bool operator==(const const_iterator &other) const
    {
        return m_depth == other.m_depth
                && (m_depth == -1 || m_item[m_depth] == other.m_item[m_depth]);
    }
    bool operator!=(const const_iterator &other) const { return !(*this == other); }
    ///@}

private:
    friend class UntypedTreeLevelItems;

    explicit const_iterator(int level) : m_level(level) { }

    void descend();
    void nextSibling();

    int m_level;
    int m_depth = -1; // -1: the end
    TreeItem *m_item[MaxLevel + 1] = {};
    int m_pos[MaxLevel + 1] = {};
    int m_size[MaxLevel + 1] = {};
};

inline UntypedTreeLevelItems::const_iterator &UntypedTreeLevelItems::const_iterator::operator++()
{
    UTILS_SOFT_ASSERT(m_depth != -1, "shell/krutils/TreeModel.h", 181, return *this);
    nextSibling();
    return *this;
}

// Descends from the node at m_depth to the first node at m_level below it, or, when the branch
// ends earlier, moves on to the next branch.
inline void UntypedTreeLevelItems::const_iterator::descend()
{
    UTILS_SOFT_ASSERT(m_depth < m_level, "shell/krutils/TreeModel.h", 182, return );
    while (m_depth < m_level) {
        const TreeItem *node = m_item[m_depth];
        const int rows = node->rowCount();
        if (rows == 0) {
            nextSibling();
            return;
        }
        ++m_depth;
        m_pos[m_depth] = 0;
        m_size[m_depth] = rows;
        m_item[m_depth] = node->child(0);
    }
}

// Moves from the node at m_depth to its next sibling, climbing while a parent has no further
// rows, and descends again from there; the end is reached once the climb passes the start node.
inline void UntypedTreeLevelItems::const_iterator::nextSibling()
{
    while (++m_pos[m_depth] >= m_size[m_depth]) {
        if (--m_depth < 0) {
            m_depth = -1;
            return;
        }
    }
    m_item[m_depth] = m_item[m_depth - 1]->child(m_pos[m_depth]);
    if (m_depth < m_level)
        descend();
}

/// A QAbstractItemModel over a tree of TreeItems. Every row has the same number of columns; the
/// data, flags and editing come from the items. The model owns its root item.
///
/// The model and its items live on the GUI thread, as Qt's models and views do: views call the
/// model directly, so every change to the tree (inserting, removing, sorting, editing an item)
/// happens on that thread. Work done elsewhere reaches it through a queued signal, or through a
/// subtree built off-line and appended there. Inserting under an item that views already show is
/// cheap: the row of an item is remembered, so appending does not scan the siblings.
class KRUTILS_EXPORT TreeModel : public QAbstractItemModel
{
    Q_OBJECT

public:
    /// A model with an empty root item and one column.
    explicit TreeModel(QObject *parent = nullptr);
    /// Adopts `root` and attaches its subtree. A null root leaves the model empty.
    explicit TreeModel(TreeItem *root, QObject *parent = nullptr);
    ~TreeModel() override;

    /// The index of the child at `row` of the item at `parent`; invalid when there is no such
    /// row or column.
    QModelIndex index(int row, int column,
                      const QModelIndex &parent = QModelIndex()) const override;
    /// The index of the item's parent; invalid for the root's children.
    QModelIndex parent(const QModelIndex &child) const override;
    /// TreeItem::rowCount() of the item at `parent`; 0 below a column other than 0.
    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    /// The model's column count (setHeader(), setColumnCount()); 0 below a column other than 0.
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    /// TreeItem::hasChildren() of the item at `parent`.
    bool hasChildren(const QModelIndex &parent = QModelIndex()) const override;
    /// TreeItem::data() of the item at `index`, for its column.
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    /// Hands the edit to TreeItem::setData() and emits dataChanged() when the item changed.
    bool setData(const QModelIndex &index, const QVariant &value, int role = Qt::EditRole) override;
    /// The texts of setHeader(), for the horizontal header and Qt::DisplayRole.
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;
    /// TreeItem::fetchMore() and TreeItem::canFetchMore() of the item at `parent`; the root
    /// fetches nothing.
    ///@{
    void fetchMore(const QModelIndex &parent) override;
    bool canFetchMore(const QModelIndex &parent) const override;
    ///@}
    /// TreeItem::flags() of the item at `index`, for its column; no flags for an invalid index.
    Qt::ItemFlags flags(const QModelIndex &index) const override;

    /// Replaces the root and deletes the old one with its whole tree. It emits no reset: callers
    /// that replace a root a view already shows reset the view themselves.
    void setRootItem(TreeItem *item);
    /// The root item, which the views do not show; null when the model has none.
    TreeItem *rootItem() const { return m_root; }

    /// Sets the horizontal header texts and, with them, the column count.
    void setHeader(const QStringList &header);
    /// Sets the column count, keeping the header texts.
    void setColumnCount(int columnCount);

    /// An invalid index stands for the root item.
    TreeItem *itemFromIndex(const QModelIndex &index) const;
    /// The index of `item` in column 0; invalid for the root.
    QModelIndex indexFromItem(const TreeItem *item) const;

    /// Takes `item` out of the tree and hands it to the caller undeleted; it keeps its model.
    void removeItem(TreeItem *item);
    /// Deletes all items below the root.
    void removeItems();

    /// The items at `level` below `start` (the root when `start` is null).
    UntypedTreeLevelItems untypedLevelItems(int level = 1, TreeItem *start = nullptr) const;
    /// The children of `start`; a null `start` gives an empty range.
    UntypedTreeLevelItems untypedLevelItems(TreeItem *start) const;

Q_SIGNALS:
    /// Asks the views to expand the item at `index` (TreeItem::expand()); connect it to
    /// QTreeView::expand() where that is wanted, views do not react by themselves.
    void requestExpansion(QModelIndex index);

private:
    friend class TreeItem;

    TreeItem *m_root;
    QStringList m_header;
    int m_columnCount = 1;
};

} // namespace Utils

#endif // UTILS_TREEMODEL_H
