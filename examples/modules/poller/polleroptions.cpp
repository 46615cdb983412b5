#include "polleroptions.h"

#include <QFormLayout>
#include <QSpinBox>
#include <QVBoxLayout>

PollerOptions::PollerOptions(ZtMIFound *module, QWidget *parent)
    : WAbstractOptions(parent)
    , interval(new QSpinBox(this))
    , setpoint(new QSpinBox(this))
{
    setModule(module);
    interval->setRange(10, 60000);
    interval->setSuffix(QStringLiteral(" ms"));
    setpoint->setRange(0, 2047);
    auto *form = new QFormLayout;
    form->addRow(tr("Interval"), interval);
    form->addRow(tr("Setpoint"), setpoint);
    auto *layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(&buttonBox);
    connect(module, &ZtMIFound::sendOptions, this, &PollerOptions::showOptions);
}

void PollerOptions::showOptions(ModuleOptions opts)
{
    shown = opts;
    if (!isVisible())
        readOptions();
}

void PollerOptions::readOptions()
{
    interval->setValue(shown.value(QStringLiteral("interval")).toInt());
    setpoint->setValue(shown.value(QStringLiteral("setpoint")).toInt());
}

void PollerOptions::writeOptions()
{
    const QVariantList edits {QStringLiteral("interval"), interval->value(),
                              QStringLiteral("setpoint"), setpoint->value()};
    QMetaObject::invokeMethod(module, "setOptionsFromList", Qt::QueuedConnection,
                              Q_ARG(QVariantList, edits));
}
