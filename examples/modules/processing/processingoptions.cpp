#include "processingoptions.h"

#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QVBoxLayout>

ProcessingOptions::ProcessingOptions(ZtMIFound *module, QWidget *parent)
    : WAbstractOptions(parent)
    , gain(new QDoubleSpinBox(this))
    , offset(new QDoubleSpinBox(this))
{
    setModule(module);
    gain->setRange(-1000.0, 1000.0);
    offset->setRange(-1000.0, 1000.0);
    gain->setSingleStep(0.1);
    offset->setSingleStep(0.1);
    auto *form = new QFormLayout;
    form->addRow(tr("Gain"), gain);
    form->addRow(tr("Offset"), offset);
    auto *layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(&buttonBox);
    connect(module, &ZtMIFound::sendOptions, this, &ProcessingOptions::showOptions);
}

void ProcessingOptions::showOptions(ModuleOptions opts)
{
    shown = opts;
    if (!isVisible())
        readOptions();
}

void ProcessingOptions::readOptions()
{
    gain->setValue(shown.value(QStringLiteral("gain")).toDouble());
    offset->setValue(shown.value(QStringLiteral("offset")).toDouble());
}

void ProcessingOptions::writeOptions()
{
    const QVariantList edits {QStringLiteral("gain"), gain->value(), QStringLiteral("offset"),
                              offset->value()};
    QMetaObject::invokeMethod(module, "setOptionsFromList", Qt::QueuedConnection,
                              Q_ARG(QVariantList, edits));
}
