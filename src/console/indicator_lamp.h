#pragma once

#include <QColor>
#include <QTimer>
#include <QWidget>

namespace kestrix::console {

// One of the console's link indicators. The engine reports each transmission or reception as a
// single event, often hundreds a second during a read loop; a lamp that followed them one
// repaint each would never be seen. Each event lights the lamp for kOnMs; events while it is lit
// are folded into one more blink after a dark gap of kGapMs, so a busy link blinks steadily and
// a single exchange is still a visible flash.
class IndicatorLamp : public QWidget {
    Q_OBJECT

public:
    static constexpr int kOnMs = 100;
    static constexpr int kGapMs = 60;

    // `lit` is the colour when on; an invalid colour paints nothing when off (the lamp is laid
    // over a dark one), otherwise `dark` is painted.
    IndicatorLamp(QColor lit, QColor dark, QWidget* parent = nullptr);

    // One traffic event.
    void flash();
    // The lamp's own state, as the engine's field sets it (independent of traffic).
    void setSteady(bool on);
    // Ends a blink under way at once (for pictures that must not depend on traffic timing).
    void settle();
    bool lit() const { return m_steady || m_phase == Phase::On; }
    // Blinks shown since the start (for tests and the simulator panel's activity counters).
    int blinks() const { return m_blinks; }

    QSize sizeHint() const override { return {14, 14}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    enum class Phase { Idle, On, Gap };
    void advance();
    void lightUp();

    QColor m_lit;
    QColor m_dark;
    QTimer m_timer;
    Phase m_phase = Phase::Idle;
    bool m_pending = false;
    bool m_steady = false;
    int m_blinks = 0;
};

}  // namespace kestrix::console
