#pragma once

#include <ztmistream.h>

#include <QVariantList>

// A stream module that scales every point of the curves it receives, y' = gain * y + offset,
// and passes the result on through ImReady. Curves keep their points' x; a non-empty "label"
// option renames them and a "color" option repens them, so that the plot can tell the stages
// apart. Non-point items pass unchanged.
//
// Options: gain, offset, label, color. Logs the first block it receives and every hundredth.
class ProcessingStage : public ZtMIStream
{
    Q_OBJECT

public:
    explicit ProcessingStage(int id, QObject *parent = nullptr);

    QWidget *getWOptions(QWidget *parent) override;

    // The block scaled as this stage does it; used by StartProcessing.
    static QVariantList process(const QVariantList &data, double gain, double offset,
                                const QString &label, const QString &color, int *points);

public slots:
    void StartProcessing(QVariantList data) override;
    void applyOptions() override;

protected:
    void initOptions() override;

private:
    double gain = 1.0;
    double offset = 0.0;
    QString label;
    QString color;
    qint64 blocks = 0;
};
