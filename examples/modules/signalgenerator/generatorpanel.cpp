#include "generatorpanel.h"

#include <ztaction.h>

#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QToolButton>
#include <QVBoxLayout>

GeneratorPanel::GeneratorPanel(ZtMIFound *module, ZtAction *amplitude, QWidget *parent)
    : WAbstractMain(parent)
    , summary(new QLabel(this))
    , amplitudeBox(new QDoubleSpinBox(this))
{
    setModule(module);
    auto *buttons = new QHBoxLayout;
    for (const char *name : {"start", "stop"}) {
        auto *button = new QToolButton(this);
        button->setDefaultAction(module->getActions()->value(QLatin1String(name)));
        buttons->addWidget(button);
    }
    buttons->addStretch();

    amplitudeBox->setRange(0.0, 100.0);
    amplitudeBox->setSingleStep(0.1);
    amplitudeBox->setValue(amplitude->data().toDouble());
    connect(amplitudeBox, QOverload<double>::of(&QDoubleSpinBox::valueChanged), amplitude,
            QOverload<double>::of(&ZtAction::setValue));
    connect(amplitude, QOverload<double>::of(&ZtAction::valueChanged), amplitudeBox,
            &QDoubleSpinBox::setValue);

    auto *form = new QFormLayout;
    form->addRow(tr("Amplitude"), amplitudeBox);
    auto *layout = new QVBoxLayout(this);
    layout->addLayout(buttons);
    layout->addLayout(form);
    layout->addWidget(summary);
    layout->addStretch();

    connect(module, &ZtMIFound::sendOptions, this, &GeneratorPanel::showOptions);
}

void GeneratorPanel::showOptions(ModuleOptions opts)
{
    shown = opts;
    readOptions();
}

void GeneratorPanel::readOptions()
{
    summary->setText(tr("%1, %2 Hz, %3 samples/s")
                         .arg(shown.value(QStringLiteral("waveform")).toString())
                         .arg(shown.value(QStringLiteral("frequency")).toDouble())
                         .arg(shown.value(QStringLiteral("rate")).toInt()));
}
