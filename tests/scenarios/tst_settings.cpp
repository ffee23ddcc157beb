// What the service makes of its settings and of the variables that override them, what it saves of
// them, and what it does away with that an earlier run has left.

#include "Road.h"
#include "Steps.h"
#include "VirtualProduct.h"

#include <QCoreApplication>
#include <QTest>

class tst_settings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void reconnectTimeout_data();
    void reconnectTimeout();
    void latency();
    void enable_data();
    void enable();
    void pin_data();
    void pin();
    void pairingMode_data();
    void pairingMode();
    void name_data();
    void name();
    void savingFails();
    void staleDaemons();
};

namespace {

const QString TimeoutKey = "BLUETOOTH/bt-timeout-reconnect-1";
const QString EnableKey = "BLUETOOTH/bt-enable";
const QString PinKey = "BLUETOOTH/bt-pid";
const QString DisableLegacyKey = "BLUETOOTH/bt-disable-legacy";
const QString LatencyKey = "BLUETOOTH/bt-latency";
const QString NicknameKey = "GENERAL/Nickname";
const QString SerialNumberKey = "GENERAL/SerialNumber";

/// A switched off product with these settings as well.
VirtualProduct::Options with(const QJsonObject &settings, const QStringList &environment = {})
{
    VirtualProduct::Options options = Steps::switchedOff();
    for (auto setting = settings.begin(); setting != settings.end(); ++setting)
        options.settings.insert(setting.key(), setting.value());
    options.environment = environment;
    return options;
}

/// What the service says of its settings, from the start until it runs.
QStringList toldOnStart(VirtualProduct &product)
{
    Steps::waitUntilRunning(product);
    const QStringList steps = Steps::steps(product);
    return steps.mid(1, steps.indexOf("4 Bluetooth Manager running") - 1);
}

/// The same of a product without settings that is switched off, with lines changed. A setting that
/// is forced is told of in place of its name.
QStringList usuallyTold(const Steps::Changes &changes)
{
    const QStringList lines =
        Steps::changed({"4 reconnection timeout 5000", "enable", "pin", "4 legacy mode 0",
                        "latency", "4 BLUETOOTH CONFIGURATION:", "4 > Enable:         false",
                        "4 > Pid:            7351", "4 > Latency:        1000"},
                       changes);
    return Steps::changed(lines, {{"enable", {}}, {"pin", {}}, {"latency", {}}});
}

} // namespace

void tst_settings::reconnectTimeout_data()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<QStringList>("told");
    QTest::newRow("too low") << 99
                             << QStringList {"2 too low reconnect timeout",
                                             "4 reconnection timeout 100"};
    QTest::newRow("lowest") << 100 << QStringList {"4 reconnection timeout 100"};
    QTest::newRow("biggest") << 10000 << QStringList {"4 reconnection timeout 10000"};
    QTest::newRow("too big") << 10001
                             << QStringList {"2 too big reconnect timeout",
                                             "4 reconnection timeout 10000"};
}

void tst_settings::reconnectTimeout()
{
    QFETCH(int, value);
    QFETCH(QStringList, told);
    VirtualProduct product(with({{TimeoutKey, value}}));
    QCOMPARE(toldOnStart(product), usuallyTold({{"4 reconnection timeout 5000", told}}));
}

/// Any number will do, but only a decimal one is forced.
void tst_settings::latency()
{
    VirtualProduct product(with({{LatencyKey, -5}}, {"ULMO_BT_LATENCY=0x20"}));
    QCOMPARE(toldOnStart(product),
             usuallyTold({{"4 > Latency:        1000", {"4 > Latency:        -5"}}}));
}

void tst_settings::enable_data()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<QString>("variable");
    QTest::addColumn<bool>("forced");
    QTest::addColumn<bool>("enabled");
    QTest::newRow("any number") << -7 << "" << false << true;
    QTest::newRow("forced, 1") << 0 << "1" << true << true;
    QTest::newRow("forced, TRUE") << 0 << "TRUE" << true << true;
    QTest::newRow("forced, though stored") << 1 << "1" << true << true;
    QTest::newRow("yes forces nothing") << 0 << "yes" << false << false;
    QTest::newRow("0 forces nothing") << 1 << "0" << false << true;
}

void tst_settings::enable()
{
    QFETCH(int, value);
    QFETCH(QString, variable);
    QFETCH(bool, forced);
    QFETCH(bool, enabled);
    VirtualProduct::Options options = with({{EnableKey, value}}, {"ULMO_BT_ENABLE=" + variable});
    VirtualProduct product(options);
    QStringList force;
    if (forced)
        force.append("4 force enable for ULMO_BT_ENABLE");
    const QString dumped = QString("4 > Enable:         %1").arg(enabled ? "true" : "false");
    QCOMPARE(toldOnStart(product),
             usuallyTold({{"enable", force}, {"4 > Enable:         false", {dumped}}}));
    if (!enabled)
        return;
    product.expectLog(4, "[DBUS|Internal] SetEnabled(true) requested");
    product.expectLog(
        4, forced ? "Enable SAVED (true)" : "Enable (true) not saved because already saved");
    QCOMPARE(product.settings().value(EnableKey).toString(),
             forced ? QString("1") : QString::number(value));
}

void tst_settings::pin_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("variable");
    QTest::addColumn<QString>("used");
    QTest::addColumn<bool>("written"); // at the next occasion
    const QString standard = "7351";
    const QString none;
    QTest::newRow("stored") << "0042" << none << "0042" << false;
    QTest::newRow("repaired") << "12345" << none << standard << true;
    QTest::newRow("none") << "" << none << standard << true;
    QTest::newRow("digits of another script")
        << "\u0661\u0662\u0663\u0664" << none << "\u0661\u0662\u0663\u0664" << false;
    QTest::newRow("forced to the stored one") << "1234"
                                              << "1234"
                                              << "1234" << true;
    QTest::newRow("forced to none") << "0042"
                                    << "12a4" << standard << true;
}

void tst_settings::pin()
{
    QFETCH(QString, value);
    QFETCH(QString, variable);
    QFETCH(QString, used);
    QFETCH(bool, written);
    VirtualProduct product(with({{PinKey, value}}, {"ULMO_BT_PID=" + variable}));
    QStringList force;
    if (!variable.isEmpty())
        force.append("4 force PID for ULMO_BT_PID");
    QCOMPARE(toldOnStart(product),
             usuallyTold(
                 {{"pin", force}, {"4 > Pid:            7351", {"4 > Pid:            " + used}}}));
    QCOMPARE(product.call("GetStatus"), QJsonArray({0, false, false, used}));
    product.tell("platform shutdown");
    if (written)
        product.expectLog(4, "PID SAVED (" + used + ')');
    else
        product.expectLog(4, "PID (" + used + ") not saved because already saved");
    QCOMPARE(product.settings().value(PinKey).toString(), used);
    // What was written is known from then on.
    product.tell("platform shutdown");
    product.expectLog(4, "PID (" + used + ") not saved because already saved");
}

void tst_settings::pairingMode_data()
{
    QTest::addColumn<QString>("pin");
    QTest::addColumn<int>("used");
    QTest::newRow("standard PIN") << "7351" << 1;
    QTest::newRow("another PIN") << "1234" << 0;
    QTest::newRow("a PIN replaced") << "123" << 1;
}

void tst_settings::pairingMode()
{
    QFETCH(QString, pin);
    QFETCH(int, used);
    VirtualProduct product(with({{DisableLegacyKey, 3}, {PinKey, pin}, {EnableKey, 1}}));
    product.expectLog(4, QString("legacy mode %1").arg(used));
    Steps::waitUntilOn(product);
    // Before the agent is there and after.
    const QString command = QString("hciconfig hci0 sspmode %1").arg(used);
    QCOMPARE(product.commands().filter("sspmode"), QStringList({command, command}));
}

void tst_settings::name_data()
{
    QTest::addColumn<QJsonObject>("settings");
    QTest::addColumn<QString>("name");
    QTest::newRow("none") << QJsonObject() << "Ulmo_unknown";
    QTest::newRow("serial number")
        << QJsonObject {{NicknameKey, ""}, {SerialNumberKey, "AB 12-34"}} << "Ulmo_AB_1234";
    QTest::newRow("nickname") << QJsonObject {{NicknameKey, "My K\u00fcche  #2"},
                                              {SerialNumberKey, "AB 12-34"}}
                              << "My_Kche__2";
    QTest::newRow("nothing left") << QJsonObject {{NicknameKey, "#!?"}} << "";
}

void tst_settings::name()
{
    QFETCH(QJsonObject, settings);
    QFETCH(QString, name);
    settings.insert(EnableKey, 1);
    VirtualProduct product(with(settings, {"BLUEZHOSTNAME=inherited"}));
    const QJsonObject start = product.expect({{"kind", "start"}, {"program", "bluetoothd"}});
    QCOMPARE(start.value("environment").toObject().value("BLUEZHOSTNAME").toString(), name);
}

/// Each time anew: what was not written is not known.
void tst_settings::savingFails()
{
    VirtualProduct::Options options = Steps::adapterAtOnce();
    options.environment = QStringList {"ULMO_BT_ENABLE=1", "ULMO_BT_PID=1234",
                                       "ULMO_SETTINGS=/proc/nowhere/settings.ini"};
    VirtualProduct product(options);
    product.expectLog(2, "Error saving Enable");
    Steps::waitUntilOn(product);
    for (int i = 0; i < 2; ++i) {
        product.tell("platform shutdown");
        product.expectLogs(2, {"Error saving Enable", "Error saving Pid"});
    }
    QVERIFY(product.messages().filter("saved", Qt::CaseInsensitive).isEmpty());
    // It goes on with what it was given.
    QCOMPARE(product.call("GetStatus"), QJsonArray({0, true, true, "1234"}));
}

/// The children of a service that was killed are ended by the next one. Stopped processes end by
/// nothing else than SIGKILL, not even when their bus goes.
void tst_settings::staleDaemons()
{
    Road product;
    product.bring("streaming");
    const QStringList daemons {"pulseaudio", "agent", "bluetoothd"};
    for (const QString &program : daemons)
        product.tell("kill " + program + " STOP");
    product.tell("service kill KILL");
    QCOMPARE(product.serviceExit(), -9);
    for (const QString &program : daemons)
        QCOMPARE(product.entries({{"kind", "end"}, {"program", program}}).size(), 0);
    const int from = product.mark();
    product.tell("service start");
    for (const QString &program : daemons) {
        product.rewind(from);
        product.expect({{"kind", "end"}, {"program", program}});
    }
    product.rewind(from);
    Steps::waitUntilOn(product);
}

SCENARIO_MAIN(tst_settings)

#include "tst_settings.moc"
