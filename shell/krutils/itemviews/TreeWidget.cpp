#include "TreeWidget.h"

Utils::TreeWidget::TreeWidget(QWidget *parent) : View<QTreeWidget>(parent)
{
}

Utils::TreeWidget::~TreeWidget() = default;
