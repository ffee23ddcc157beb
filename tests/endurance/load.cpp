#include "Peer.h"
#include "Road.h"
#include "Run.h"
#include "ServiceFigures.h"
#include "Steps.h"
#include "Watch.h"

#include <QTest>

#include <memory>
#include <vector>

namespace {

const int SignalsPerStep = 200;
const int Callers = 32;
const int CallsPerCaller = 20;
/// What the allocator may keep for later use, whatever the number of visits.
const int GrowthKiB = 512;

/// What a service holds, which must not become more.
struct Holdings
{
    int residentKiB;
    int descriptors;
    int children;
    int rules;
};

} // namespace

/// Much at once, or many times: nothing is lost, and nothing piles up.
class Load : public QObject
{
    Q_OBJECT

public:
    explicit Load(Run &run) : m_run(run) { }

private slots:
    void noSignalIsLost();
    void everyCallerIsAnswered();
    void visitsLeaveNothingBehind();

private:
    void visit(Road &product);
    void countRules(Road &product);

    Run &m_run;
    int m_rules = 0; ///< match rules that the service has at the buses
};

void Load::noSignalIsLost()
{
    // A daemon that never comes to the bus leaves its name to somebody who is quicker at this.
    Road::Options options = Steps::switchedOff();
    options.tell << "fault bluetoothd hang";
    VirtualProduct product(options);
    Steps::waitUntilRunning(product);
    product.call("SetEnabled", {"b:true"});
    Peer bluez(product.systemBusAddress());
    QVERIFY(bluez.isConnected() && bluez.claim("org.bluez"));
    product.expect(
        {{"kind", "signal"}, {"member", "BluetoothOn"}, {"arguments", QJsonArray {true}}});

    int sent = 0;
    product.mark();
    for (int done = 0; m_run.goesOn(done); ++done) {
        for (int i = 0; i < SignalsPerStep; ++i) {
            const Message message =
                owned(dbus_message_new_signal("/load", "org.bluez.Device", "PropertyChanged"));
            RandomMessage::appendText(message, "Number");
            RandomMessage::appendVariant(message, QByteArray::number(sent++));
            bluez.send(message);
        }
        bluez.flush();
    }
    QVERIFY2(product.call("GetStatus").size() == 4, "GetStatus is not answered");

    const QString beginning = "DevicePropertyChanged (org.bluez.Device)/load Number=";
    product.expectLog(4, beginning + QString::number(sent - 1));
    int traced = 0;
    for (const QString &message : product.messages()) {
        if (message.startsWith(beginning))
            QCOMPARE(message, beginning + QString::number(traced++));
    }
    QCOMPARE(traced, sent);
}

void Load::everyCallerIsAnswered()
{
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    std::vector<std::unique_ptr<Peer>> callers;
    for (int i = 0; i < Callers; ++i) {
        callers.push_back(std::make_unique<Peer>(product.sessionBusAddress()));
        QVERIFY(callers.back()->isConnected());
    }
    for (int i = 0; i < CallsPerCaller; ++i) {
        for (const auto &caller : callers)
            caller->send(owned(dbus_message_new_method_call(
                "com.orbitalis.ulmo.bluetoothmanager",
                "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj",
                "com.orbitalis.ulmo.bluetoothinterface", "GetStatus")));
    }
    const int patienceMs = 20000;
    for (const auto &caller : callers) {
        int answers = 0;
        while (answers < CallsPerCaller) {
            const Message message = caller->receive(patienceMs);
            QVERIFY2(message, "a caller is not answered");
            answers += dbus_message_has_signature(message.get(), "ibbs");
        }
    }
}

void Load::visit(Road &product)
{
    product.mark();
    product.tell("phone anna connect");
    product.expect({{"kind", "call"}, {"member", "PlayBluetooth"}});
    const int played = product.mark();
    product.tell("phone anna leave");
    product.expectLog(4, "stop pulseaudio because not used any more");
    product.rewind(played);
    product.expect({{"kind", "reply"}, {"member", "StopPlay"}});
    product.awaitPhone(played, "anna", "link-down");
}

/// Takes what the service has told the buses since the journal was let go of the last time.
void Load::countRules(Road &product)
{
    const VirtualProduct::Pattern call {{"kind", "call"}, {"senderName", "service"}};
    for (const QJsonObject &entry : product.entries(call)) {
        m_rules += entry.value("member") == "AddMatch";
        m_rules -= entry.value("member") == "RemoveMatch";
    }
}

void Load::visitsLeaveNothingBehind()
{
    Road product;
    product.meet("anna");
    Watch watch(product);
    const ServiceFigures figures(
        product.entries({{"kind", "start"}, {"program", "service"}}).last().value("pid").toInt());
    QVERIFY(figures.isThere());

    // The first visits fill what is filled only once.
    const int first = 15;
    Holdings before = {};
    Holdings after = {};
    for (int done = 0; m_run.goesOn(done) || done < first; ++done) {
        visit(product);
        product.settle();
        countRules(product);
        const QString wrong = watch.follow();
        QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
        after = {figures.residentKiB(), figures.descriptors(), figures.children(), m_rules};
        if (done == first - 1)
            before = after;
        watch.forget();
    }
    printf("resident memory %d KiB, then %d KiB\n", before.residentKiB, after.residentKiB);
    QVERIFY(before.descriptors > 0 && before.rules > 0);
    QCOMPARE(after.descriptors, before.descriptors);
    QCOMPARE(after.children, before.children);
    QCOMPARE(after.rules, before.rules);
    const int growth = after.residentKiB - before.residentKiB;
    QVERIFY2(growth <= GrowthKiB, qPrintable(QString("grown by %1 KiB").arg(growth)));
}

ENDURANCE_MAIN(Load, 100)
#include "load.moc"
