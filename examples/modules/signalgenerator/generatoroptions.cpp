#include "generatoroptions.h"

#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QSpinBox>
#include <QVBoxLayout>

GeneratorOptions::GeneratorOptions(ZtMIFound *module, QWidget *parent)
    : WAbstractOptions(parent)
    , waveform(new QComboBox(this))
    , frequency(new QDoubleSpinBox(this))
    , amplitude(new QDoubleSpinBox(this))
    , rate(new QSpinBox(this))
{
    setModule(module);
    waveform->addItems({QStringLiteral("sine"), QStringLiteral("square"),
                        QStringLiteral("triangle"), QStringLiteral("saw")});
    frequency->setRange(0.0, 1000.0);
    frequency->setSuffix(QStringLiteral(" Hz"));
    amplitude->setRange(0.0, 100.0);
    rate->setRange(1, 100000);
    rate->setSuffix(tr(" samples/s"));

    auto *form = new QFormLayout;
    form->addRow(tr("Waveform"), waveform);
    form->addRow(tr("Frequency"), frequency);
    form->addRow(tr("Amplitude"), amplitude);
    form->addRow(tr("Rate"), rate);
    auto *layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(&buttonBox);

    connect(module, &ZtMIFound::sendOptions, this, &GeneratorOptions::showOptions);
}

void GeneratorOptions::showOptions(ModuleOptions opts)
{
    shown = opts;
    if (!isVisible())
        readOptions();
}

void GeneratorOptions::readOptions()
{
    waveform->setCurrentText(shown.value(QStringLiteral("waveform")).toString());
    frequency->setValue(shown.value(QStringLiteral("frequency")).toDouble());
    amplitude->setValue(shown.value(QStringLiteral("amplitude")).toDouble());
    rate->setValue(shown.value(QStringLiteral("rate")).toInt());
}

void GeneratorOptions::writeOptions()
{
    const QVariantList edits {QStringLiteral("waveform"),  waveform->currentText(),
                              QStringLiteral("frequency"), frequency->value(),
                              QStringLiteral("amplitude"), amplitude->value(),
                              QStringLiteral("rate"),      rate->value()};
    QMetaObject::invokeMethod(module, "setOptionsFromList", Qt::QueuedConnection,
                              Q_ARG(QVariantList, edits));
}
