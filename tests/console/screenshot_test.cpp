// A picture of each tab of the console and of the simulator's panel on the simulated kiosk, for
// the README. That both windows fit a 1280x1024 screen is checked on the real program by
// scripts/check-console-xvfb.
//
// The pictures go to $KESTRIX_SCREENSHOT_DIR when set (the `screenshots` target points it at
// docs/screenshots), else to ./screenshots.
#include <gtest/gtest.h>

#include <QDir>
#include <QLineEdit>
#include <QTabWidget>

#include "console/simulator_panel.h"
#include "virtual_console.h"

namespace kestrix::console {
namespace {

TEST(Screenshots, EachTabOnTheSimulatedKioskTheSameWhateverTheLampsWereDoing) {
    const QString dir = qEnvironmentVariableIsSet("KESTRIX_SCREENSHOT_DIR")
                            ? qEnvironmentVariable("KESTRIX_SCREENSHOT_DIR")
                            : QDir::current().filePath("screenshots");
    QDir().mkpath(dir);
    test::VirtualConsole c;
    // The port lists name the devices as the program on the simulated kiosk shows them.
    sim::seedSimulatedPortPaths(c.kiosk.store(), sim::PortNumbers{},
                                "/run/user/1000/kestrix-simulated");
    ASSERT_TRUE(c.start());
    c.window->refreshPortDevices();
    c.run(3);
    QTest::keyClicks(c.widget<QLineEdit>("due"), "12.5");
    c.run(1);
    auto* tabs = c.widget<QTabWidget>("SSTab1");
    for (int i = 0; i < tabs->count(); ++i) {
        tabs->setCurrentIndex(i);
        QCoreApplication::processEvents();
        const QString caption = tabs->tabText(i);
        c.window->settleIndicators();
        const QImage picture = c.window->grab().toImage();
        c.window->flashIndicator(Indicator::Tx);
        c.window->settleIndicators();
        EXPECT_EQ(c.window->grab().toImage(), picture) << caption.toStdString();
        const QString file = caption.toLower().replace(' ', '-') + ".png";
        EXPECT_TRUE(picture.save(QDir(dir).filePath(file))) << caption.toStdString();
    }

    SimulatorLink link;
    link.command = [&c](const std::string& command) { return c.kiosk.control(command); };
    link.profile = c.kiosk.models().profile();
    link.readPinPad = [&c](const std::string& key, std::function<void(std::string)> done) {
        done(c.kiosk.store().get("KSX", "Pin Pad Simulator", key, ""));
    };
    link.writePinPad = [&c](const std::string& key, const std::string& value) {
        c.kiosk.store().set("KSX", "Pin Pad Simulator", key, value);
    };
    SimulatorPanel panel(link);
    panel.show();
    QCoreApplication::processEvents();
    EXPECT_TRUE(panel.grab().save(QDir(dir).filePath("simulator-panel.png")));
}

}  // namespace
}  // namespace kestrix::console
