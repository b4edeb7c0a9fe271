#include "ListView.h"

Utils::ListView::ListView(QWidget *parent) : View<QListView>(parent)
{
}

Utils::ListView::~ListView() = default;
