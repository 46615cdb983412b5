#include "wabstractmain.h"

WAbstractMain::WAbstractMain(QWidget *parent)
    : QWidget(parent)
    , module(nullptr)
{ }

void WAbstractMain::setModule(ZtMIFound *module)
{
    this->module = module;
}

ZtMIFound *WAbstractMain::getModule() const
{
    return module;
}

void WAbstractMain::readOptions() { }

void WAbstractMain::writeOptions() { }
