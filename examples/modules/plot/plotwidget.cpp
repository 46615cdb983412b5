#include "plotwidget.h"

#include "plot.h"

#include <QPainter>
#include <QPainterPath>

#include <cmath>
#include <limits>

PlotWidget::PlotWidget(Plot *plot, QWidget *parent)
    : WAbstractMain(parent)
    , plot(plot)
{
    setModule(plot);
    setMinimumSize(320, 200);
    setAutoFillBackground(true);
    QPalette p = palette();
    p.setColor(QPalette::Window, Qt::white);
    setPalette(p);
}

QSize PlotWidget::sizeHint() const
{
    return QSize(640, 400);
}

void PlotWidget::readOptions()
{
    update();
}

void PlotWidget::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF area = QRectF(rect()).adjusted(50, 30, -15, -30);

    painter.setPen(Qt::black);
    painter.drawText(QRectF(0, 5, width(), 20), Qt::AlignHCenter, plot->caption());

    // Bounds over every curve; the x range ends at the newest point.
    double xMax = -std::numeric_limits<double>::max();
    double yMin = std::numeric_limits<double>::max();
    double yMax = -yMin;
    const auto &curves = plot->getCurves();
    for (const Plot::Curve &curve : curves) {
        for (const QPointF &p : curve.points) {
            xMax = qMax(xMax, p.x());
            yMin = qMin(yMin, p.y());
            yMax = qMax(yMax, p.y());
        }
    }
    const double span = qMax(0.1, plot->getOptions()->value(QStringLiteral("span")).toDouble());
    if (yMin > yMax) {
        xMax = span;
        yMin = -1.0;
        yMax = 1.0;
    }
    if (yMax - yMin < 1e-9) {
        yMin -= 0.5;
        yMax += 0.5;
    }
    const double margin = 0.05 * (yMax - yMin);
    yMin -= margin;
    yMax += margin;
    const double xMin = xMax - span;
    auto map = [&](const QPointF &p) {
        return QPointF(area.left() + (p.x() - xMin) / span * area.width(),
                       area.bottom() - (p.y() - yMin) / (yMax - yMin) * area.height());
    };

    painter.setPen(QPen(QColor(225, 225, 225), 1));
    for (int i = 0; i <= 4; ++i) {
        const double y = area.top() + i * area.height() / 4;
        painter.drawLine(QPointF(area.left(), y), QPointF(area.right(), y));
        const double x = area.left() + i * area.width() / 4;
        painter.drawLine(QPointF(x, area.top()), QPointF(x, area.bottom()));
    }
    painter.setPen(Qt::darkGray);
    painter.drawRect(area);
    for (int i = 0; i <= 4; ++i) {
        const double value = yMax - i * (yMax - yMin) / 4;
        painter.drawText(QRectF(0, area.top() + i * area.height() / 4 - 8, 45, 16),
                         Qt::AlignRight | Qt::AlignVCenter, QString::number(value, 'g', 3));
        painter.drawText(QRectF(area.left() + i * area.width() / 4 - 30, area.bottom() + 4, 60, 16),
                         Qt::AlignHCenter,
                         QStringLiteral("%1 s").arg(-span + i * span / 4, 0, 'g', 3));
    }

    painter.save();
    painter.setClipRect(area);
    for (const Plot::Curve &curve : curves) {
        if (curve.points.isEmpty())
            continue;
        QPainterPath path(map(curve.points.first()));
        for (const QPointF &p : curve.points)
            path.lineTo(map(p));
        painter.setPen(curve.pen);
        painter.drawPath(path);
        if (curve.points.size() == 1)
            painter.drawEllipse(map(curve.points.first()), 2, 2);
    }
    painter.restore();

    // Legend: one line per curve in its pen, with its name.
    double y = area.top() + 8;
    for (auto it = curves.cbegin(); it != curves.cend(); ++it) {
        painter.setPen(it.value().pen);
        painter.drawLine(QPointF(area.left() + 8, y), QPointF(area.left() + 28, y));
        painter.setPen(Qt::black);
        painter.drawText(QPointF(area.left() + 34, y + 4), it.key());
        y += 16;
    }
}
