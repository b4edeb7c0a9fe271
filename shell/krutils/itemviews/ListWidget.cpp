#include "ListWidget.h"

Utils::ListWidget::ListWidget(QWidget *parent) : View<QListWidget>(parent)
{
}

Utils::ListWidget::~ListWidget() = default;
