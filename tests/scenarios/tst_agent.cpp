// The pairing agent: how it is started, and that it is started again whenever it has gone.

#include "Steps.h"
#include "VirtualProduct.h"

#include <QCoreApplication>
#include <QTest>

class tst_agent : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void arguments();
    void ends();
    void missingForAWhile();
    void retryWhileOff();
    void retryLeftOver();
};

namespace {

/// A retry comes after 10 s.
bool isRetryDelay(const QJsonObject &failed, const QJsonObject &next)
{
    const double delay = Steps::secondsBetween(failed, next);
    return delay > 9.4 && delay < 14;
}

/// Has the agent of a stack that is on go, so that it cannot come back.
QJsonObject takeAgentAway(VirtualProduct &product)
{
    Steps::waitUntilOn(product);
    product.tell("fault agent missing");
    product.tell("kill agent");
    product.expectLog(4, "agent down 9 crash");
    product.expectLog(2, "error starting agent");
    return product.expectLog(2, "not possible to restart agent");
}

} // namespace

void tst_agent::arguments()
{
    const QString pin = "\u0661\u0662\u0663\u0664"; // digits of another script
    VirtualProduct::Options options = Steps::adapterAtOnce();
    options.environment.append("ULMO_BT_PID=" + pin);
    VirtualProduct product(options);
    product.expectLog(4,
                      "start agent agent with parameters --path /org/bluez/agent --delay 1 "
                      "--capabilites NoInputNoOutput "
                          + pin);
    const QJsonObject agent = product.expect({{"kind", "start"}, {"program", "agent"}});
    QCOMPARE(agent.value("arguments").toArray(),
             QJsonArray({"--path", "/org/bluez/agent", "--delay", "1", "--capabilites",
                         "NoInputNoOutput", pin}));
}

/// Another one is there at once, however often, and the stack stays on.
void tst_agent::ends()
{
    VirtualProduct::Options options = Steps::adapterAtOnce();
    options.tell.append("fault agent exit=5 times=12");
    VirtualProduct product(options);
    for (int i = 0; i < 12; ++i) {
        product.expectLog(4, "agent down 5 normal");
        product.expectLog(2, "restart agent ok");
    }
    // Only the last one has registered, maybe before the service said that it runs.
    product.rewind(0);
    product.expect(VirtualProduct::message("reply", "RegisterAgent"));

    const int from = product.mark();
    product.tell("kill agent");
    const QJsonObject down = product.expectLog(4, "agent down 9 crash");
    const QJsonObject again = product.expectLog(2, "restart agent ok");
    QVERIFY(Steps::secondsBetween(down, again) < 3);
    QCOMPARE(Steps::steps(product, from),
             QStringList({"4 agent down 9 crash", "$ hciconfig hci0 noscan"}) + Steps::agentSteps()
                 + QStringList {"2 restart agent ok"});
    product.rewind(from);
    product.expect(VirtualProduct::message("reply", "RegisterAgent"));
    QCOMPARE(product.call("GetStatus"), QJsonArray({0, true, true, "7351"}));
    QCOMPARE(Steps::serviceSignals(product), QStringList {"BluetoothOn(true)"});
}

/// It is tried every 10 s, and the stack stays on meanwhile.
void tst_agent::missingForAWhile()
{
    VirtualProduct product(Steps::adapterAtOnce());
    QJsonObject failed = takeAgentAway(product);
    product.expectLog(4, "start agent agent with parameters *");
    product.expectLog(2, "error starting agent");
    const QJsonObject failedAgain = product.expectLog(2, "not possible to restart agent");
    QVERIFY(isRetryDelay(failed, failedAgain));
    QCOMPARE(product.call("GetStatus"), QJsonArray({0, true, true, "7351"}));

    product.tell("fault clear agent");
    const int from = product.mark();
    const QJsonObject back = product.expectLog(2, "restart agent ok");
    QVERIFY(isRetryDelay(failedAgain, back));
    QCOMPARE(Steps::steps(product, from), Steps::agentSteps() + QStringList {"2 restart agent ok"});
    product.rewind(from);
    product.expect(VirtualProduct::message("reply", "RegisterAgent"));
    QCOMPARE(Steps::serviceSignals(product), QStringList {"BluetoothOn(true)"});
}

/// Switching off does not end the attempts.
void tst_agent::retryWhileOff()
{
    VirtualProduct product(Steps::adapterAtOnce());
    const QJsonObject failed = takeAgentAway(product);
    product.call("SetEnabled", {"b:false"});
    product.tell("fault clear agent");
    product.tell("fault agent hang");
    const int from = product.mark();
    const QJsonObject back = product.expectLog(2, "restart agent ok");
    QVERIFY(isRetryDelay(failed, back));
    QCOMPARE(Steps::steps(product, from), Steps::agentSteps() + QStringList {"2 restart agent ok"});
    QCOMPARE(product.call("GetStatus"), QJsonArray({0, false, false, "7351"}));
    product.tell("service stop");
    Steps::expectNothingLeft(product);
}

/// A retry that is still to come is forgotten when the stack comes up anew.
void tst_agent::retryLeftOver()
{
    VirtualProduct product(Steps::adapterAtOnce());
    takeAgentAway(product);
    product.call("SetEnabled", {"b:false"});
    product.tell("fault clear agent");
    const int from = product.mark();
    product.call("SetEnabled", {"b:true"});
    Steps::waitUntilOn(product);
    QStringList steps = Steps::steps(product, from);
    steps = steps.mid(steps.indexOf("4 startStartupSequence requested"));
    const QString started = "4 bluez started and wait registration";
    QCOMPARE(steps,
             Steps::changed(
                 Steps::bringUpSteps(),
                 {{started,
                   {started, "4 startStartupSequence programming error timer already active"}}}));
    // Longer than the retry would take, a phone is silent.
    product.tell("phone add anna trusted");
    product.tell("phone anna connect");
    product.expectLog(4, "CONNECTED BUT NOT PLAYING");
    QVERIFY(!product.messages(from).contains("restart agent ok"));
}

SCENARIO_MAIN(tst_agent)

#include "tst_agent.moc"
