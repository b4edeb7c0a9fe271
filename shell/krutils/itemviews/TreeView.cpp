#include "TreeView.h"

Utils::TreeView::TreeView(QWidget *parent) : View<QTreeView>(parent)
{
}

Utils::TreeView::~TreeView() = default;
