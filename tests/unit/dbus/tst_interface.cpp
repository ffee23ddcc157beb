// The exported interface: the adaptor and the installed description say the same, and the order of
// the meta-objects is what the bus and the platform's dispatch rely on.
#include <QtTest>

#include "BluetoothManager.h"
#include "BluetoothManagerAdaptor.h"
#include "LogInterface.h"
#include "MetaMethods.h"

LogInterface *_logInterface = nullptr;

class TestInterface : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void introspectionIsTheInstalledDescription();
    void adaptorMethods();
    void managerMethods();
};

void TestInterface::introspectionIsTheInstalledDescription()
{
    QFile file(QStringLiteral(DESCRIPTION));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString description = QString::fromUtf8(file.readAll());
    const int begin = description.indexOf("<node>\n") + 7;
    const int end = description.indexOf("</node>");
    QVERIFY(begin >= 7 && end > begin);

    const QMetaObject &adaptor = BluetoothManagerAdaptor::staticMetaObject;
    const QMetaClassInfo text = adaptor.classInfo(adaptor.indexOfClassInfo("D-Bus Introspection"));
    QCOMPARE(QString::fromUtf8(text.value()), description.mid(begin, end - begin));
    const QMetaClassInfo name = adaptor.classInfo(adaptor.indexOfClassInfo("D-Bus Interface"));
    QCOMPARE(name.value(), "com.orbitalis.ulmo.bluetoothinterface");
}

void TestInterface::adaptorMethods()
{
    const QStringList expected = {"signal void BluetoothOn(bool On)",
                                  "signal void BluetoothPidChanged(QString Pid)",
                                  "signal void ConnectAudioDevice()",
                                  "signal void DisconnectAudioDevice()",
                                  "signal void NoPlayConnectedDevive()",
                                  "slot int DisconnectDevice()",
                                  "slot int GetStatus(bool& Enable, bool& On, QString& pid)",
                                  "slot int RemoveAllDevices()",
                                  "slot int RemoveDevice(QString Device)",
                                  "slot int SetEnabled(bool Enable)",
                                  "slot int SetMute(int Enable)",
                                  "slot int SetPid(QString Pid)",
                                  "slot int SetVolume(int Enable)"};
    QCOMPARE(metaMethods(BluetoothManagerAdaptor::staticMetaObject), expected);
}

void TestInterface::managerMethods()
{
    const QStringList expected = {
        "signal void BluetoothOn(bool Enabled)",
        "signal void ConnectAudioDevice()",
        "signal void DisconnectAudioDevice()",
        "signal void NoPlayConnectedDevive()",
        "signal void BluetoothPidChanged(QString Pid)",
        "slot int SetPid(QString Pid)",
        "slot int SetEnabled(bool Enable)",
        "slot int GetStatus(bool& Enable, bool& On, QString& Pid)",
        "slot int SetVolume(int volume)",
        "slot int SetMute(int mute)",
        "slot int DisconnectDevice()",
        "slot int RemoveAllDevices()",
        "slot int RemoveDevice(QString Device)",
        "slot void serviceBluezRegistered(QString name)",
        "slot void serviceBluezUnregistered(QString name)",
        "slot void bluezDown(int exitCode, QProcess::ExitStatus exitStatus)",
        "slot void bluezRestart()",
        "slot void agentDown(int exitCode, QProcess::ExitStatus exitStatus)",
        "slot void pulseaudioDown(int exitCode, QProcess::ExitStatus exitStatus)",
        "slot void timeoutStartBluez()",
        "slot void restartAgent()",
        "slot void Enable()",
        "slot void startPulseAudio_step1()",
        "slot void startPulseAudio_step2()",
        "slot void AudioSourcePropertyChanged(QString name, QDBusVariant value)",
        "slot void DevicePropertyChanged(QString name, QDBusVariant value)",
        "slot void reconnect()",
        "slot void noPlay()",
        "slot void callFinishedStartPlayer(QDBusPendingCallWatcher*)",
        "slot void callFinishedStopPlayer(QDBusPendingCallWatcher*)"};
    QCOMPARE(metaMethods(BluetoothManager::staticMetaObject), expected);
}

QTEST_GUILESS_MAIN(TestInterface)
#include "tst_interface.moc"
