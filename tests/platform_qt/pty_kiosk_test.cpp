#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QSerialPort>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "sim/pty_kiosk.h"
#include "support/support.h"

namespace kestrix::sim {
namespace {

// The engine's end of the MDB link: a real QSerialPort on the simulator's pseudo-terminal.
class MdbLine {
public:
    explicit MdbLine(const std::string& path) {
        m_port.setPortName(QString::fromStdString(path));
        m_port.setBaudRate(QSerialPort::Baud9600);
        m_port.setDataBits(QSerialPort::Data8);
        m_port.setParity(QSerialPort::NoParity);
        m_port.setStopBits(QSerialPort::OneStop);
    }
    bool open() { return m_port.open(QIODevice::ReadWrite); }
    QString error() const { return m_port.errorString(); }

    // Sends a command's words and collects the reply until its last word ("01 "), then
    // acknowledges it as the engine does.
    std::string exchange(const std::vector<unsigned char>& command) {
        QByteArray words;
        unsigned sum = 0;
        for (std::size_t i = 0; i < command.size(); ++i) {
            words.append(static_cast<char>(command[i]));
            words.append(static_cast<char>(i == 0 ? 1 : 0));
            sum += command[i];
        }
        words.append(static_cast<char>(sum & 0xFF));
        words.append('\0');
        m_port.write(words);
        m_port.waitForBytesWritten(1000);
        std::string reply;
        QElapsedTimer timer;
        timer.start();
        while (reply.find("01 ") == std::string::npos && timer.elapsed() < 3000) {
            if (m_port.waitForReadyRead(50)) {
                reply += m_port.readAll().toStdString();
            }
        }
        if (reply.size() >= 3 && reply.compare(reply.size() - 3, 3, "01 ") == 0) {
            m_port.write(QByteArray(2, '\0'));
            m_port.waitForBytesWritten(1000);
        }
        return reply;
    }

private:
    QSerialPort m_port;
};

TEST(PtyKiosk, ACoinInsertedThroughTheControlSocketComesBackInAPoll) {
    const std::string dir = test::makeTempDir("kestrix-pty") + "/kiosk";
    PtyKiosk kiosk(dir);
    kiosk.start();
    MdbLine line(kiosk.path("mdb"));
    ASSERT_TRUE(line.open()) << line.error().toStdString();

    EXPECT_EQ(line.exchange({0x0B}), "0b00 0b01 ") << "the changer's power-up report";
    std::string answer;
    EXPECT_EQ(sendControlCommand(dir, "coin 2", answer), kControlRejected);
    EXPECT_NE(answer.find("not enabled"), std::string::npos) << answer;
    line.exchange({0x0B});  // takes the report of the rejected coin

    EXPECT_EQ(line.exchange({0x0C, 0x00, 0x1F, 0xFF, 0xFF}), "0001 ");
    ASSERT_EQ(sendControlCommand(dir, "coin 2", answer), kControlAccepted) << answer;
    std::string deposit;
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 5000) {
        deposit = line.exchange({0x0B});
        if (deposit != "0001 ") {
            break;
        }
    }
    EXPECT_EQ(deposit, "5100 2900 7a01 ") << "coin type 2 (MDB 1) to its tube, now 41 coins";

    EXPECT_EQ(sendControlCommand(dir, "state", answer), kControlAccepted);
    EXPECT_NE(answer.find("\"tubes\":[40,41,30,20,10]"), std::string::npos) << answer;
    EXPECT_EQ(sendControlCommand(dir, "bogus", answer), kControlUsage) << answer;
    EXPECT_EQ(sendControlCommand(dir, "coin", answer), kControlUsage) << answer;
    kiosk.stop();
    EXPECT_EQ(sendControlCommand(dir, "state", answer), kControlNoSimulator);
}

TEST(PtyKiosk, RunsControlCommandsInProcessAndRefusesASecondSimulatorInItsDirectory) {
    const std::string dir = test::makeTempDir("kestrix-pty");
    PtyKiosk first(dir);
    first.start();
    EXPECT_TRUE(first.command("fault dispenser low on").ok);
    EXPECT_FALSE(first.command("fault dispenser melted on").ok);
    PtyKiosk second(dir);
    EXPECT_THROW(second.start(), std::runtime_error);
    first.stop();
    PtyKiosk third(dir);
    EXPECT_NO_THROW(third.start()) << "the directory was left clean";
}

// The control socket moves money in and out of the simulated kiosk, and the links are what the
// engine takes for its serial ports: both live in a directory of the user's alone.
TEST(PtyKiosk, WorksOnlyInAPrivateDirectoryWithAPrivateSocket) {
    const std::string fresh = test::makeTempDir("kestrix-pty") + "/kiosk";
    {
        PtyKiosk kiosk(fresh);
        kiosk.start();
        struct stat st {};
        ASSERT_EQ(::stat(fresh.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0700u) << "a directory it makes is private";
        ASSERT_EQ(::stat(kiosk.path("control").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u) << "the socket is the user's alone";
    }
    struct Row {
        const char* name;
        mode_t mode;
        bool otherOwner;
    };
    for (const Row& row : {Row{"world-writable", 0777, false}, Row{"group-writable", 0770, false},
                           Row{"another user's", 0700, true}}) {
        SCOPED_TRACE(row.name);
        const std::string dir = test::makeTempDir("kestrix-pty") + "/shared";
        ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0);
        ASSERT_EQ(::chmod(dir.c_str(), row.mode), 0);
        if (row.otherOwner) {
            if (::geteuid() != 0) {
                continue;  // only root can give a directory away
            }
            ASSERT_EQ(::chown(dir.c_str(), 65534, 65534), 0);
        }
        PtyKiosk kiosk(dir);
        try {
            kiosk.start();
            ADD_FAILURE() << "started in " << dir;
        } catch (const std::runtime_error& e) {
            EXPECT_NE(std::string(e.what()).find("refused"), std::string::npos) << e.what();
        }
        EXPECT_FALSE(std::filesystem::exists(dir + "/control")) << "nothing is left there";
    }
}

}  // namespace
}  // namespace kestrix::sim
