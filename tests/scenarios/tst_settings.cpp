// What the service makes of its settings and of the variables that override them, what it saves of
// them, and what it does away with that an earlier run has left.

#include "Road.h"
#include "Steps.h"
#include "VirtualProduct.h"

#include <QCoreApplication>
#include <QFile>
#include <QTest>

class tst_settings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void reconnectTimeout_data();
    void reconnectTimeout();
    void enable_data();
    void enable();
    void pin_data();
    void pin();
    void pairingMode_data();
    void pairingMode();
    void latency_data();
    void latency();
    void name_data();
    void name();
    void saving_data();
    void saving();
    void savedOnlyOnce();
    void savingFails_data();
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

/// Settings with one key; none when the value is null.
QJsonObject stored(const QString &key, const QJsonValue &value)
{
    return value.isNull() ? QJsonObject() : QJsonObject {{key, value}};
}

QStringList variable(const QString &name, const QString &value)
{
    return value.isNull() ? QStringList() : QStringList {name + '=' + value};
}

/// A switched off product with these settings as well.
VirtualProduct::Options with(const QJsonObject &settings, const QStringList &environment = {})
{
    VirtualProduct::Options options = Steps::switchedOff();
    for (auto setting = settings.begin(); setting != settings.end(); ++setting)
        options.settings.insert(setting.key(), setting.value());
    options.environment = environment;
    return options;
}

QString warning(const QString &key, const QString &value)
{
    return QString("2 settings file /run/product/out/settings.ini [BLUETOOTH] %1: \"%2\" is no "
                   "integer, the default is used")
        .arg(key, value);
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
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QString>("warned");
    QTest::addColumn<int>("used");
    const QString tooLow = "2 too low reconnect timeout";
    const QString tooBig = "2 too big reconnect timeout";
    QTest::newRow("none") << QJsonValue() << "" << 5000;
    QTest::newRow("negative") << QJsonValue(-1) << tooLow << 100;
    QTest::newRow("50") << QJsonValue(50) << tooLow << 100;
    QTest::newRow("99") << QJsonValue(99) << tooLow << 100;
    QTest::newRow("100") << QJsonValue(100) << "" << 100;
    QTest::newRow("10000") << QJsonValue(10000) << "" << 10000;
    QTest::newRow("10001") << QJsonValue(10001) << tooBig << 10000;
    QTest::newRow("20000") << QJsonValue(20000) << tooBig << 10000;
    QTest::newRow("no number") << QJsonValue("soon") << warning("bt-timeout-reconnect-1", "soon")
                               << 5000;
}

void tst_settings::reconnectTimeout()
{
    QFETCH(QJsonValue, value);
    QFETCH(QString, warned);
    QFETCH(int, used);
    VirtualProduct product(with(stored(TimeoutKey, value)));
    QStringList lines {warned, QString("4 reconnection timeout %1").arg(used)};
    lines.removeAll("");
    QCOMPARE(toldOnStart(product), usuallyTold({{"4 reconnection timeout 5000", lines}}));
}

void tst_settings::enable_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QString>("variable");
    QTest::addColumn<bool>("forced");
    QTest::addColumn<bool>("enabled");
    QTest::addColumn<QString>("saved"); // of an enabled one, what its start says
    const QString known = "Enable (true) not saved because already saved";
    const QString written = "Enable SAVED (true)";
    QTest::newRow("none") << QJsonValue() << QString() << false << true << known;
    QTest::newRow("0") << QJsonValue(0) << QString() << false << false << "";
    QTest::newRow("1") << QJsonValue(1) << QString() << false << true << known;
    QTest::newRow("another number") << QJsonValue(-7) << QString() << false << true << known;
    QTest::newRow("forced, 1") << QJsonValue(0) << "1" << true << true << written;
    QTest::newRow("forced, true") << QJsonValue(0) << "true" << true << true << written;
    QTest::newRow("forced, TRUE") << QJsonValue(0) << "TRUE" << true << true << written;
    QTest::newRow("forced, though stored") << QJsonValue(1) << "1" << true << true << written;
    QTest::newRow("yes forces nothing") << QJsonValue(0) << "yes" << false << false << "";
    QTest::newRow("0 forces nothing") << QJsonValue(1) << "0" << false << true << known;
    QTest::newRow("empty forces nothing") << QJsonValue(0) << "" << false << false << "";
}

void tst_settings::enable()
{
    QFETCH(QJsonValue, value);
    QFETCH(QString, variable);
    QFETCH(bool, forced);
    QFETCH(bool, enabled);
    QFETCH(QString, saved);
    VirtualProduct::Options options = Steps::adapterAtOnce();
    options.settings = stored(EnableKey, value);
    options.environment = ::variable("ULMO_BT_ENABLE", variable);
    VirtualProduct product(options);
    QStringList force;
    if (forced)
        force.append("4 force enable for ULMO_BT_ENABLE");
    const QString dumped = QString("4 > Enable:         %1").arg(enabled ? "true" : "false");
    QCOMPARE(toldOnStart(product),
             usuallyTold({{"enable", force}, {"4 > Enable:         false", {dumped}}}));
    if (!enabled) {
        QCOMPARE(product.call("GetStatus"), QJsonArray({0, false, false, "7351"}));
        return;
    }
    product.expectLogs(4,
                       {"Enable", "[DBUS|Internal] SetEnabled(true) requested",
                        "Saving bluetooth configuration", saved, "startStartupSequence*"});
    if (forced)
        QCOMPARE(product.settings().value(EnableKey).toString(), QString("1"));
    else
        QCOMPARE(product.settings().value(EnableKey).isUndefined(), value.isNull());
}

void tst_settings::pin_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QString>("variable");
    QTest::addColumn<bool>("forced");
    QTest::addColumn<QString>("used");
    QTest::addColumn<bool>("written"); // at the next occasion
    QTest::newRow("none") << QJsonValue() << QString() << false << "7351" << false;
    QTest::newRow("four digits") << QJsonValue("0042") << QString() << false << "0042" << false;
    QTest::newRow("five digits") << QJsonValue("12345") << QString() << false << "7351" << true;
    QTest::newRow("three digits") << QJsonValue("123") << QString() << false << "7351" << true;
    QTest::newRow("a letter") << QJsonValue("12a4") << QString() << false << "7351" << true;
    QTest::newRow("a sign") << QJsonValue("-123") << QString() << false << "7351" << true;
    QTest::newRow("empty") << QJsonValue("") << QString() << false << "7351" << true;
    QTest::newRow("digits of another script") << QJsonValue("\u0661\u0662\u0663\u0664") << QString()
                                              << false << "\u0661\u0662\u0663\u0664" << false;
    QTest::newRow("forced") << QJsonValue("0042") << "1234" << true << "1234" << true;
    QTest::newRow("forced to the stored one")
        << QJsonValue("1234") << "1234" << true << "1234" << true;
    QTest::newRow("forced to none") << QJsonValue("0042") << "12a4" << true << "7351" << true;
    QTest::newRow("empty forces nothing") << QJsonValue("0042") << "" << false << "0042" << false;
}

void tst_settings::pin()
{
    QFETCH(QJsonValue, value);
    QFETCH(QString, variable);
    QFETCH(bool, forced);
    QFETCH(QString, used);
    QFETCH(bool, written);
    VirtualProduct product(with(stored(PinKey, value), ::variable("ULMO_BT_PID", variable)));
    QStringList force;
    if (forced)
        force.append("4 force PID for ULMO_BT_PID");
    QCOMPARE(toldOnStart(product),
             usuallyTold(
                 {{"pin", force}, {"4 > Pid:            7351", {"4 > Pid:            " + used}}}));
    QCOMPARE(product.call("GetStatus"), QJsonArray({0, false, false, used}));
    product.tell("platform shutdown");
    if (written) {
        product.expectLog(4, "PID SAVED (" + used + ')');
        QCOMPARE(product.settings().value(PinKey).toString(), used);
    } else {
        product.expectLog(4, "PID (" + used + ") not saved because already saved");
        QCOMPARE(product.settings().value(PinKey).isUndefined(), value.isNull());
    }
}

void tst_settings::pairingMode_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QString>("pin");
    QTest::addColumn<int>("used");
    QTest::newRow("none") << QJsonValue() << "7351" << 0;
    QTest::newRow("0") << QJsonValue(0) << "7351" << 0;
    QTest::newRow("1") << QJsonValue(1) << "7351" << 1;
    QTest::newRow("3") << QJsonValue(3) << "7351" << 1;
    QTest::newRow("-1") << QJsonValue(-1) << "7351" << 0;
    QTest::newRow("1, another PIN") << QJsonValue(1) << "1234" << 0;
    QTest::newRow("1, a PIN replaced") << QJsonValue(1) << "123" << 1;
}

void tst_settings::pairingMode()
{
    QFETCH(QJsonValue, value);
    QFETCH(QString, pin);
    QFETCH(int, used);
    QJsonObject settings = stored(DisableLegacyKey, value);
    settings.insert(PinKey, pin);
    settings.insert(EnableKey, 1);
    VirtualProduct product(with(settings));
    product.expectLog(4, QString("legacy mode %1").arg(used));
    // Before the agent is there and after.
    for (int i = 0; i < 2; ++i) {
        product.expectCommand(QString("hciconfig hci0 sspmode %1").arg(used));
        product.expectLog(4, QString("set legacy mode (hciconfig hci0 sspmode %1) 0").arg(used));
    }
    Steps::waitUntilOn(product);
    QCOMPARE(product.commands().filter("sspmode").size(), 2);
}

void tst_settings::latency_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QString>("variable");
    QTest::addColumn<bool>("forced");
    QTest::addColumn<int>("used");
    QTest::newRow("none") << QJsonValue() << QString() << false << 1000;
    QTest::newRow("stored") << QJsonValue(250) << QString() << false << 250;
    QTest::newRow("stored, 0") << QJsonValue(0) << QString() << false << 0;
    QTest::newRow("stored, negative") << QJsonValue(-5) << QString() << false << -5;
    QTest::newRow("forced") << QJsonValue(250) << "40" << true << 40;
    QTest::newRow("forced, 0") << QJsonValue(250) << "0" << true << 0;
    QTest::newRow("forced, negative") << QJsonValue(250) << "-5" << true << -5;
    QTest::newRow("abc forces nothing") << QJsonValue(250) << "abc" << false << 250;
    QTest::newRow("hexadecimal forces nothing") << QJsonValue(250) << "0x20" << false << 250;
    QTest::newRow("empty forces nothing") << QJsonValue() << "" << false << 1000;
}

void tst_settings::latency()
{
    QFETCH(QJsonValue, value);
    QFETCH(QString, variable);
    QFETCH(bool, forced);
    QFETCH(int, used);
    VirtualProduct product(
        with(stored(LatencyKey, value), ::variable("ULMO_BT_LATENCY", variable)));
    QStringList force;
    if (forced)
        force.append(QString("4 force ULMO_BT_LATENCY=%1").arg(used));
    const QString dumped = QString("4 > Latency:        %1").arg(used);
    QCOMPARE(toldOnStart(product),
             usuallyTold({{"latency", force}, {"4 > Latency:        1000", {dumped}}}));
}

void tst_settings::name_data()
{
    QTest::addColumn<QJsonObject>("settings");
    QTest::addColumn<QString>("name");
    QTest::newRow("none") << QJsonObject() << "Ulmo_unknown";
    QTest::newRow("serial number") << QJsonObject {{SerialNumberKey, "AB 12-34"}} << "Ulmo_AB_1234";
    QTest::newRow("empty nickname, serial number")
        << QJsonObject {{NicknameKey, ""}, {SerialNumberKey, "AB 12-34"}} << "Ulmo_AB_1234";
    QTest::newRow("empty serial number") << QJsonObject {{SerialNumberKey, ""}} << "Ulmo_";
    QTest::newRow("nickname") << QJsonObject {{NicknameKey, "Living Room #2"},
                                              {SerialNumberKey, "AB 12-34"}}
                              << "Living_Room_2";
    QTest::newRow("two blanks") << QJsonObject {{NicknameKey, "a  b"}} << "a__b";
    QTest::newRow("nothing left") << QJsonObject {{NicknameKey, "#!?"}} << "";
    QTest::newRow("beyond ASCII") << QJsonObject {{NicknameKey, "K\u00fcche_3"}} << "Kche_3";
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

void tst_settings::saving_data()
{
    QTest::addColumn<QStringList>("environment");
    QTest::addColumn<QString>("line");
    QTest::addColumn<QStringList>("told");
    const QString enableKnown = "4 Enable (false) not saved because already saved";
    const QString pinKnown = "4 PID (7351) not saved because already saved";
    QTest::newRow("nothing new") << QStringList() << "platform reboot"
                                 << QStringList {enableKnown, pinKnown};
    QTest::newRow("a forced PIN") << QStringList {"ULMO_BT_PID=1234"} << "platform shutdown now"
                                  << QStringList {enableKnown, "4 PID SAVED (1234)"};
    QTest::newRow("a new PIN only")
        << QStringList() << "pin 1234" << QStringList {"4 PID SAVED (1234)"};
    QTest::newRow("the switch only")
        << QStringList {"ULMO_BT_PID=1234"} << "disable" << QStringList {enableKnown};
    QTest::newRow("the switch, changed")
        << QStringList() << "enable" << QStringList {"4 Enable SAVED (true)"};
}

void tst_settings::saving()
{
    QFETCH(QStringList, environment);
    QFETCH(QString, line);
    QFETCH(QStringList, told);
    VirtualProduct product(with({}, environment));
    Steps::waitUntilRunning(product);
    const int from = product.mark();
    product.tell(line);
    product.expectLog(4, "Saving bluetooth configuration");
    for (const QString &message : told)
        product.expectLog(4, message.mid(2));
    QStringList saved = Steps::steps(product, from);
    saved = saved.mid(saved.indexOf("4 Saving bluetooth configuration") + 1);
    QCOMPARE(saved.filter(QRegularExpression("Enable.*(saved|SAVED)|PID.*(saved|SAVED)")), told);
}

/// A setting that was written is known from then on.
void tst_settings::savedOnlyOnce()
{
    VirtualProduct product(with({}, {"ULMO_BT_ENABLE=1", "ULMO_BT_PID=1234"}));
    product.expectLog(4, "Enable SAVED (true)");
    product.tell("platform shutdown");
    product.expectLogs(4, {"Enable (true) not saved because already saved", "PID SAVED (1234)"});
    product.tell("platform shutdown");
    product.expectLogs(4,
                       {"Enable (true) not saved because already saved",
                        "PID (1234) not saved because already saved"});
    QCOMPARE(product.settings(), QJsonObject({{EnableKey, "1"}, {PinKey, "1234"}}));
}

void tst_settings::savingFails_data()
{
    QTest::addColumn<QString>("place"); // what the settings file is a link to
    QTest::addColumn<QStringList>("told");
    QTest::newRow("it cannot be written")
        << "/proc/nowhere/settings.ini"
        << QStringList {"2 Error saving Enable", "2 Error saving Pid"};
    QTest::newRow("it has become unusable")
        << "/proc/version" << QStringList {"1 Impossible to initialize Configuration proxy"};
}

void tst_settings::savingFails()
{
    QFETCH(QString, place);
    QFETCH(QStringList, told);
    VirtualProduct::Options options = Steps::adapterAtOnce();
    options.environment = QStringList {"ULMO_BT_ENABLE=1", "ULMO_BT_PID=1234"};
    options.startService = false;
    VirtualProduct product(options);
    QVERIFY(QFile::link("/proc/nowhere/settings.ini", product.settingsFile()));
    product.tell("service start");
    product.expectLog(2, "Error saving Enable");
    Steps::waitUntilOn(product);
    QVERIFY(QFile::remove(product.settingsFile()));
    QVERIFY(QFile::link(place, product.settingsFile()));
    // Each time anew: what was not written is not known.
    for (int i = 0; i < 2; ++i) {
        const int from = product.mark();
        product.tell("platform shutdown");
        product.expectLog(4, "Saving bluetooth configuration");
        for (const QString &line : told)
            product.expectLog(line.left(1).toInt(), line.mid(2));
        QVERIFY(Steps::steps(product, from).filter("SAVED").isEmpty());
    }
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
