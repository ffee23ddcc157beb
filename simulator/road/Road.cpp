#include "Road.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <unistd.h>

namespace {

const char Address[] = "00:1A:7D:DA:71:13";
/// The tone that phones play by default, in hertz.
const double LeftTone = 440;
const double RightTone = 660;
/// Level of that tone, a sine of half the full scale.
const double ToneLevel = -9.03;

} // namespace

Road::Road(Observer *observer, const QString &audioFile)
    : m_observer(observer), m_audioFile(audioFile)
{
}

void Road::narrate(const QString &text)
{
    const bool colour = isatty(STDOUT_FILENO);
    printf("%s* %s%s\n", colour ? "\033[1m" : "", qPrintable(text), colour ? "\033[0m" : "");
    fflush(stdout);
}

void Road::comeOn()
{
    m_observer->waitForLog("Bluetooth Manager running");
    narrate("The service runs and starts the Bluetooth stack.");
    m_observer->waitForMessage("signal", "BluetoothOn");
    m_observer->waitFor("the agent's registration", [](const QJsonObject &entry) {
        return entry.value("kind") == "reply" && entry.value("member") == "RegisterAgent";
    });
    narrate("The stack is on, the pairing agent answers.");
    const QString status = m_observer->tell("status");
    m_observer->catchUp();
    narrate("GetStatus says: " + status);
}

bool Road::visit()
{
    QString add = QString("phone add Phone address=%1 pin=7351").arg(Address);
    if (!m_audioFile.isEmpty())
        add += " \"audio=" + m_audioFile + '"';
    m_observer->tell(add);
    m_observer->tell("phone Phone connect");
    narrate(QString("The phone %1 pairs with the PIN and connects by itself.").arg(Address));
    m_observer->waitForPhone("paired");
    m_observer->waitForLog("load timer for reconnect");
    narrate("The service accepts it. It is new, so it is trusted, and re-made in 5 s.");
    m_observer->waitForLog("reconnect");
    narrate("The service drops the connection and makes its own.");
    m_observer->waitForLog("connection coming from ulmo");
    m_observer->waitForLog("try to start pulseaudio");
    narrate("The phone is the unit's own now: PulseAudio comes up.");
    m_observer->waitForMessage("call", "PlayBluetooth");
    narrate("The loopback is loaded, and the sound manager is asked to play.");

    m_observer->tell("phone Phone play");
    narrate("The phone plays.");
    hear("playing", false, 1);
    m_observer->tell("volume 40");
    narrate("A caller sets the volume to 40 %.");
    hear("at 40 % volume", false, 0.4);
    m_observer->tell("mute 1");
    narrate("A caller mutes.");
    hear("muted", true);
    m_observer->tell("phone Phone pause");
    narrate("The phone pauses and leaves.");
    m_observer->tell("phone Phone leave");
    m_observer->waitForLog("stop pulseaudio because not used any more");
    m_observer->waitForMessage("call", "StopPlay");
    narrate("PulseAudio is stopped, and the sound manager is asked to stop.");
    hear("after the phone left", true);

    m_heard.print("/run/product/out/board.wav");
    printf("\nThe board's sound: %s/board.wav\n",
           qPrintable(qEnvironmentVariable("PRODUCT_FOLDER", "/run/product/out")));
    return m_heard.allAsExpected();
}

void Road::hear(const QString &situation, bool silent, double volume)
{
    ExpectedSound expected;
    expected.silent = silent;
    if (!silent && m_audioFile.isEmpty()) {
        // PulseAudio's volume is cubic.
        const double level = ToneLevel + 60 * std::log10(volume);
        expected.left = {LeftTone, level};
        expected.right = {RightTone, level};
    }
    const bool asExpected = m_heard.measure(situation, expected);
    m_observer->catchUp();
    narrate(
        QString("Heard %1: %2").arg(situation, asExpected ? "as expected." : "NOT as expected."));
}

void Road::crashAndRecover()
{
    m_observer->tell("kill bluetoothd");
    narrate("The Bluetooth daemon is killed.");
    m_observer->waitForLog("bluezDown down");
    m_observer->waitForLog("restart");
    m_observer->waitForMessage("signal", "BluetoothOn");
    narrate("The stack is on again.");
}

void Road::stop()
{
    narrate("The service is asked to end.");
    m_observer->tell("service stop");
    m_observer->waitForLog("Succesfully terminated");
    const QJsonObject end =
        m_observer->waitFor("the end of the service", [](const QJsonObject &entry) {
            return entry.value("kind") == "end" && entry.value("program") == "service";
        });
    if (end.value("status").toInt(-1) != 0)
        throw std::runtime_error("the service did not end with status 0");
    narrate("It took everything down and ended with status 0.");
}
