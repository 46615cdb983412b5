#include "wabstractstate.h"

WAbstractState::WAbstractState(QWidget *parent)
    : QWidget(parent)
{ }
