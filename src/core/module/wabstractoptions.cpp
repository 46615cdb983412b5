#include "wabstractoptions.h"

WAbstractOptions::WAbstractOptions(QWidget *parent)
    : QWidget(parent)
    , buttonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel)
    , module(nullptr)
{
    buttonBox.setObjectName(QStringLiteral("buttonBox"));
    connect(&buttonBox, &QDialogButtonBox::rejected, this, &WAbstractOptions::readOptions);
    connect(&buttonBox, &QDialogButtonBox::accepted, this, &WAbstractOptions::writeOptions);
    connect(&buttonBox, &QDialogButtonBox::accepted, this, &WAbstractOptions::changed);
}

void WAbstractOptions::setModule(ZtMIFound *module)
{
    this->module = module;
}

ZtMIFound *WAbstractOptions::getModule() const
{
    return module;
}

void WAbstractOptions::readOptions() { }

void WAbstractOptions::writeOptions() { }
