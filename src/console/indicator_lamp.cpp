#include "console/indicator_lamp.h"

#include <QPainter>

namespace kestrix::console {

IndicatorLamp::IndicatorLamp(QColor lit, QColor dark, QWidget* parent)
    : QWidget(parent), m_lit(lit), m_dark(dark) {
    setFixedSize(sizeHint());
    setAttribute(Qt::WA_TranslucentBackground);
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, [this] { advance(); });
}

void IndicatorLamp::flash() {
    if (m_phase == Phase::Idle) {
        lightUp();
    } else {
        m_pending = true;
    }
}

void IndicatorLamp::setSteady(bool on) {
    if (m_steady != on) {
        m_steady = on;
        update();
    }
}

void IndicatorLamp::settle() {
    m_timer.stop();
    m_pending = false;
    if (m_phase != Phase::Idle) {
        m_phase = Phase::Idle;
        update();
    }
}

void IndicatorLamp::lightUp() {
    m_phase = Phase::On;
    m_pending = false;
    ++m_blinks;
    m_timer.start(kOnMs);
    update();
}

void IndicatorLamp::advance() {
    if (m_phase == Phase::On) {
        m_phase = Phase::Gap;
        m_timer.start(kGapMs);
        update();
    } else if (m_pending) {
        lightUp();
    } else {
        m_phase = Phase::Idle;
    }
}

void IndicatorLamp::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF r = QRectF(rect()).adjusted(1.5, 1.5, -1.5, -1.5);
    if (lit()) {
        p.setPen(QPen(m_lit.darker(160), 1));
        p.setBrush(m_lit);
    } else if (m_dark.isValid()) {
        p.setPen(QPen(m_dark.darker(150), 1));
        p.setBrush(m_dark);
    } else {
        return;
    }
    p.drawEllipse(r);
}

}  // namespace kestrix::console
