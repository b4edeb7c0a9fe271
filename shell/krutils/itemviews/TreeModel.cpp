#include "TreeModel.h"

#include "runtime/KrLogging_p.h"

#include <algorithm>

// The line numbers in the assertions are part of the log texts that operators and tools match;
// they are fixed, whatever the position of the check in this file.
#define TREEMODEL_ASSERT(cond, line, action)                                                       \
    UTILS_SOFT_ASSERT(cond, "shell/krutils/TreeModel", line, action)

namespace Utils {

// TreeItemVisitor

TreeItemVisitor::~TreeItemVisitor() = default;

bool TreeItemVisitor::preVisit(TreeItem *)
{
    return true;
}

void TreeItemVisitor::visit(TreeItem *)
{
}

void TreeItemVisitor::postVisit(TreeItem *)
{
}

// TreeItem

TreeItem::TreeItem() = default;

TreeItem::TreeItem(const QStringList &displays, int flags)
    : m_displays(displays), m_flags(Qt::ItemFlags(flags))
{
}

TreeItem::~TreeItem()
{
    clear();
}

TreeItem *TreeItem::parent() const
{
    return m_parent;
}

TreeItem *TreeItem::child(int pos) const
{
    ensurePopulated();
    TREEMODEL_ASSERT(pos >= 0, 634, return nullptr);
    return pos < m_children.size() ? m_children.at(pos) : nullptr;
}

bool TreeItem::isLazy() const
{
    return m_lazy;
}

int TreeItem::rowCount() const
{
    ensurePopulated();
    return m_children.size();
}

void TreeItem::populate()
{
}

QVariant TreeItem::data(int column, int role) const
{
    if (role == Qt::DisplayRole && column >= 0 && column < m_displays.size())
        return m_displays.at(column);
    return QVariant();
}

bool TreeItem::setData(int column, const QVariant &data, int role)
{
    Q_UNUSED(column)
    Q_UNUSED(data)
    Q_UNUSED(role)
    return false;
}

Qt::ItemFlags TreeItem::flags(int column) const
{
    Q_UNUSED(column)
    return m_flags;
}

bool TreeItem::hasChildren() const
{
    return canFetchMore() || rowCount() > 0;
}

bool TreeItem::canFetchMore() const
{
    return false;
}

void TreeItem::fetchMore()
{
}

void TreeItem::appendChild(TreeItem *item)
{
    insertChild(m_children.size(), item);
}

void TreeItem::prependChild(TreeItem *item)
{
    insertChild(0, item);
}

void TreeItem::insertChild(int pos, TreeItem *item)
{
    // An item with a parent already ends up referenced twice; that is the caller's fault, and
    // refusing it would lose the item.
    TREEMODEL_ASSERT(!item->parent(), 696, (void)0);
    TREEMODEL_ASSERT(0 <= pos && pos <= m_children.size(), 697, return );

    item->m_rowHint = pos;
    // Nobody can show the rows of an item outside a model, and a lazy item's rows are not
    // announced: its children appear when a view first asks for them.
    if (!m_model || m_lazy) {
        item->m_parent = this;
        if (m_model)
            item->propagateModel(m_model);
        m_children.insert(pos, item);
        return;
    }

    m_model->beginInsertRows(m_model->indexFromItem(this), pos, pos);
    item->m_parent = this;
    item->propagateModel(m_model);
    m_children.insert(pos, item);
    m_model->endInsertRows();
}

void TreeItem::removeChildren()
{
    const int rows = rowCount();
    if (rows == 0)
        return;
    if (!m_model) {
        clear();
        return;
    }
    m_model->beginRemoveRows(m_model->indexFromItem(this), 0, rows - 1);
    clear();
    m_model->endRemoveRows();
}

void TreeItem::clear()
{
    while (!m_children.isEmpty()) {
        TreeItem *item = m_children.takeLast();
        item->m_parent = nullptr;
        delete item;
    }
}

void TreeItem::sortChildren(const std::function<bool(const TreeItem *, const TreeItem *)> &lessThan)
{
    if (!m_model) {
        std::sort(m_children.begin(), m_children.end(), lessThan);
        return;
    }

    emit m_model->layoutAboutToBeChanged();
    std::sort(m_children.begin(), m_children.end(), lessThan);
    for (int row = 0, rows = m_children.size(); row < rows; ++row)
        m_children.at(row)->m_rowHint = row;
    // Selections, current indexes and expanded branches are persistent indexes: they follow
    // their items to the new rows.
    QModelIndexList from;
    QModelIndexList to;
    const QModelIndexList persistent = m_model->persistentIndexList();
    for (const QModelIndex &index : persistent) {
        auto item = static_cast<TreeItem *>(index.internalPointer());
        if (item->m_parent != this)
            continue;
        const int row = rowOf(item);
        if (row != index.row()) {
            from.append(index);
            to.append(m_model->createIndex(row, index.column(), item));
        }
    }
    m_model->changePersistentIndexList(from, to);
    emit m_model->layoutChanged();
}

void TreeItem::update()
{
    if (!m_model || m_model->m_columnCount < 1)
        return;
    const QModelIndex first = m_model->indexFromItem(this);
    if (!first.isValid()) // the root, or an item taken out of the tree: no row to repaint
        return;
    const QModelIndex last = m_model->createIndex(first.row(), m_model->m_columnCount - 1, this);
    emit m_model->dataChanged(first, last, QVector<int>());
}

void TreeItem::updateColumn(int column)
{
    if (!m_model || column < 0 || column >= m_model->m_columnCount)
        return;
    const int row = m_model->indexFromItem(this).row();
    if (row < 0)
        return;
    const QModelIndex cell = m_model->createIndex(row, column, this);
    emit m_model->dataChanged(cell, cell, QVector<int>());
}

void TreeItem::expand()
{
    TREEMODEL_ASSERT(m_model, 828, return );
    emit m_model->requestExpansion(index());
}

void TreeItem::walkTree(TreeItemVisitor *visitor)
{
    if (visitor->preVisit(this)) {
        ++visitor->m_level;
        visitor->visit(this);
        // Over a copy: a visitor may restructure the children it is shown.
        const QVector<TreeItem *> children = m_children;
        for (TreeItem *item : children)
            item->walkTree(visitor);
        --visitor->m_level;
    }
    visitor->postVisit(this);
}

void TreeItem::walkTree(std::function<void(TreeItem *)> f)
{
    f(this);
    const QVector<TreeItem *> children = m_children;
    for (TreeItem *item : children)
        item->walkTree(f);
}

int TreeItem::level() const
{
    int ancestors = 0;
    for (const TreeItem *item = m_parent; item; item = item->m_parent)
        ++ancestors;
    return ancestors;
}

QModelIndex TreeItem::index() const
{
    TREEMODEL_ASSERT(m_model, 785, return QModelIndex());
    return m_model->indexFromItem(this);
}

TreeItem *TreeItem::firstChild() const
{
    return m_children.isEmpty() ? nullptr : m_children.first();
}

TreeItem *TreeItem::lastChild() const
{
    return m_children.isEmpty() ? nullptr : m_children.last();
}

QVector<TreeItem *> TreeItem::children() const
{
    return m_children;
}

void TreeItem::setModel(TreeModel *model)
{
    if (m_model == model)
        return;
    m_model = model;
    const QVector<TreeItem *> children = m_children;
    for (TreeItem *item : children)
        item->setModel(model);
}

void TreeItem::setFlags(Qt::ItemFlags flags)
{
    m_flags = flags;
}

void TreeItem::setLazy(bool on)
{
    m_lazy = on;
}

void TreeItem::ensurePopulated() const
{
    if (m_populated)
        return;
    // Marked first, so that a populate() asking for its own rows does not start over.
    m_populated = true;
    if (isLazy())
        const_cast<TreeItem *>(this)->populate();
}

void TreeItem::propagateModel(TreeModel *m)
{
    TREEMODEL_ASSERT(m, 843, return );
    if (m_model == m)
        return;
    // An item of another model stays there: moving it silently would corrupt that model.
    TREEMODEL_ASSERT(m_model == 0 || m_model == m, 844, return );
    m_model = m;
    for (TreeItem *item : qAsConst(m_children))
        item->propagateModel(m);
}

// Items are mostly appended, so the row an item was found at last time usually still holds it;
// the scan is left for rows that earlier insertions, removals or a sort have moved.
int TreeItem::rowOf(const TreeItem *child) const
{
    const int hint = child->m_rowHint;
    if (hint < m_children.size() && m_children.at(hint) == child)
        return hint;
    const int row = m_children.indexOf(const_cast<TreeItem *>(child));
    if (row >= 0)
        child->m_rowHint = row;
    return row;
}

// UntypedTreeLevelItems

UntypedTreeLevelItems::const_iterator UntypedTreeLevelItems::begin() const
{
    const int level = m_level;
    const_iterator it(level);
    TREEMODEL_ASSERT(level > 0, 1085, return it);
    if (!m_item)
        return it;
    // The iterator keeps the path in fixed arrays.
    if (level > MaxLevel) {
        krWarning(UntypedTreeLevelItems)
                << "level" << level << "is deeper than" << int(MaxLevel) << "levels, no items";
        return it;
    }
    it.m_depth = 0;
    it.m_pos[0] = 0;
    it.m_size[0] = 1;
    it.m_item[0] = m_item;
    it.descend();
    return it;
}

UntypedTreeLevelItems::const_iterator UntypedTreeLevelItems::end() const
{
    const int level = m_level;
    TREEMODEL_ASSERT(level > 0, 1085, (void)0);
    return const_iterator(level);
}

// TreeModel

TreeModel::TreeModel(QObject *parent) : QAbstractItemModel(parent), m_root(new TreeItem)
{
    m_root->m_model = this;
}

TreeModel::TreeModel(TreeItem *root, QObject *parent) : QAbstractItemModel(parent), m_root(root)
{
    if (m_root)
        m_root->propagateModel(this);
}

TreeModel::~TreeModel()
{
    delete m_root;
}

QModelIndex TreeModel::index(int row, int column, const QModelIndex &parent) const
{
    if (!hasIndex(row, column, parent))
        return QModelIndex();
    const TreeItem *item = itemFromIndex(parent);
    TREEMODEL_ASSERT(item, 1011, return QModelIndex());
    if (row >= item->rowCount())
        return QModelIndex();
    return createIndex(row, column, item->child(row));
}

QModelIndex TreeModel::parent(const QModelIndex &child) const
{
    if (!child.isValid())
        return QModelIndex();
    const TreeItem *item = itemFromIndex(child);
    TREEMODEL_ASSERT(item, 890, return QModelIndex());
    TreeItem *parent = item->parent();
    if (!parent || parent == m_root)
        return QModelIndex();
    const TreeItem *grandparent = parent->parent();
    if (!grandparent)
        return QModelIndex();
    // Through the grandparent's own rowCount() and child(), which a subclass may provide; the
    // row the parent was found at last time is asked first.
    const int rows = grandparent->rowCount();
    const int hint = parent->m_rowHint;
    if (hint < rows && grandparent->child(hint) == parent)
        return createIndex(hint, 0, parent);
    for (int i = 0; i < rows; ++i) {
        if (grandparent->child(i) == parent) {
            parent->m_rowHint = i;
            return createIndex(i, 0, parent);
        }
    }
    return QModelIndex();
}

int TreeModel::rowCount(const QModelIndex &parent) const
{
    if (parent.column() > 0)
        return 0;
    const TreeItem *item = parent.isValid() ? itemFromIndex(parent) : m_root;
    TREEMODEL_ASSERT(item, 914, return 0);
    return item->rowCount();
}

int TreeModel::columnCount(const QModelIndex &parent) const
{
    return parent.column() > 0 ? 0 : m_columnCount;
}

bool TreeModel::hasChildren(const QModelIndex &parent) const
{
    // Without an item the answer is yes, so that a view asks for the rows and finds out.
    const TreeItem *item = itemFromIndex(parent);
    return item ? item->hasChildren() : true;
}

QVariant TreeModel::data(const QModelIndex &index, int role) const
{
    const TreeItem *item = itemFromIndex(index);
    return item ? item->data(index.column(), role) : QVariant();
}

bool TreeModel::setData(const QModelIndex &index, const QVariant &value, int role)
{
    TreeItem *item = itemFromIndex(index);
    if (!item)
        return false;
    const bool changed = item->setData(index.column(), value, role);
    if (changed)
        emit dataChanged(index, index, QVector<int>());
    return changed;
}

QVariant TreeModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation == Qt::Horizontal && role == Qt::DisplayRole && section < m_header.size())
        return m_header.at(section);
    return QVariant();
}

void TreeModel::fetchMore(const QModelIndex &parent)
{
    if (!parent.isValid())
        return;
    if (TreeItem *item = itemFromIndex(parent))
        item->fetchMore();
}

bool TreeModel::canFetchMore(const QModelIndex &parent) const
{
    if (!parent.isValid())
        return false;
    const TreeItem *item = itemFromIndex(parent);
    return item && item->canFetchMore();
}

Qt::ItemFlags TreeModel::flags(const QModelIndex &index) const
{
    if (!index.isValid())
        return Qt::NoItemFlags;
    const TreeItem *item = itemFromIndex(index);
    return item ? item->flags(index.column()) : Qt::ItemIsSelectable | Qt::ItemIsEnabled;
}

void TreeModel::setRootItem(TreeItem *item)
{
    delete m_root;
    m_root = item;
    if (m_root)
        m_root->setModel(this);
}

void TreeModel::setHeader(const QStringList &header)
{
    m_header = header;
    m_columnCount = header.size();
}

void TreeModel::setColumnCount(int columnCount)
{
    m_columnCount = columnCount;
}

TreeItem *TreeModel::itemFromIndex(const QModelIndex &index) const
{
    TreeItem *item = index.isValid() ? static_cast<TreeItem *>(index.internalPointer()) : m_root;
    TREEMODEL_ASSERT(item, 1021, return nullptr);
    TREEMODEL_ASSERT(item->m_model == this, 1022, return nullptr);
    return item;
}

QModelIndex TreeModel::indexFromItem(const TreeItem *item) const
{
    TREEMODEL_ASSERT(item, 1028, return QModelIndex());
    if (item == m_root)
        return QModelIndex();
    const int row = item->m_parent ? item->m_parent->rowOf(item) : -1;
    return createIndex(row, 0, const_cast<TreeItem *>(item));
}

void TreeModel::removeItem(TreeItem *item)
{
    TREEMODEL_ASSERT(item, 1061, return );
    TreeItem *parent = item->parent();
    TREEMODEL_ASSERT(parent, 1063, return );
    const int pos = parent->rowOf(item);
    TREEMODEL_ASSERT(pos != -1, 1065, return );

    beginRemoveRows(indexFromItem(parent), pos, pos);
    item->m_parent = nullptr;
    parent->m_children.removeAt(pos);
    endRemoveRows();
}

void TreeModel::removeItems()
{
    if (m_root)
        m_root->removeChildren();
}

UntypedTreeLevelItems TreeModel::untypedLevelItems(int level, TreeItem *start) const
{
    return UntypedTreeLevelItems(start ? start : m_root, level);
}

UntypedTreeLevelItems TreeModel::untypedLevelItems(TreeItem *start) const
{
    return UntypedTreeLevelItems(start, 1);
}

} // namespace Utils
