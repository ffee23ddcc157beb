// Builds the four process-wide objects, runs the event loop and takes them down.
#include <signal.h>
#include <stdio.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtDBus/QDBusConnection>

#include "BluetoothManager.h"
#include "BluetoothManagerAdaptor.h"
#include "LogInterface.h"
#include "LogLine.h"

// The first two live until the process ends: anything that still runs then may log.
QCoreApplication *_application = nullptr;
LogInterface *_logInterface = nullptr;
BluetoothManager *_bluetoothManager = nullptr;
BluetoothManagerAdaptor *_bluetoothManagerAdaptor = nullptr;

namespace {

const int StartFailure = -1;

/** Blocks SIGINT and SIGTERM, or lets them through. */
void maskEndSignals(int how)
{
    sigset_t endSignals;
    sigemptyset(&endSignals);
    sigaddset(&endSignals, SIGINT);
    sigaddset(&endSignals, SIGTERM);
    pthread_sigmask(how, &endSignals, nullptr);
}

/**
 * Lets the signals through as the first thing that the event loop does: what asks a loop to exit
 * before it runs is forgotten. Qt's own threads inherit the mask, so that only the main thread ever
 * handles them.
 */
class SignalGate : public QObject
{
protected:
    virtual void customEvent(QEvent *) override { maskEndSignals(SIG_UNBLOCK); }
};

} // namespace

// Runs asynchronously on the main thread: the log client is made for that, and exit() only stores
// numbers and wakes the loop. Nothing else may be added here.
void signals_handler(int sig)
{
    if (sig != SIGINT && sig != SIGTERM)
        return;
    LOG_LINE(LogWarning, "signal SIGINT or SIGTERM received");
    _application->exit(0);
}

int main(int argc, char **argv)
{
    maskEndSignals(SIG_BLOCK);
    _application = new QCoreApplication(argc, argv);
    _logInterface = new LogInterface(Names::LogObject);
    LOG_LINE(LogInformation, "Starting Bluetooth Manager...");

    if (signal(SIGINT, signals_handler) == SIG_ERR)
        LOG_LINE(LogWarning, "Can't catch SIGINT");
    if (signal(SIGTERM, signals_handler) == SIG_ERR)
        LOG_LINE(LogWarning, "Can't catch SIGTERM");

    QDBusConnection sessionBus = QDBusConnection::sessionBus();
    if (!sessionBus.isConnected()) {
        LOG_LINE(LogError, "DBUS: Can't connect session bus");
        puts("DBUS: Can't connect session bus");
        return StartFailure;
    }
    if (!QDBusConnection::systemBus().isConnected()) {
        LOG_LINE(LogError, "DBUS: Can't connect system bus");
        puts("DBUS: Can't connect system bus");
        return StartFailure;
    }

    _bluetoothManager = new BluetoothManager;
    if (!_bluetoothManager->isValid()) {
        LOG_LINE_AS(Names::SoundManagerObject, __PRETTY_FUNCTION__, LogError,
                    "Impossible to crate a valid SoundManager");
        return StartFailure;
    }
    _bluetoothManagerAdaptor = new BluetoothManagerAdaptor(_bluetoothManager);

    if (!sessionBus.registerService(Names::Service)) {
        LOG_LINE(LogError, "DBUS: Can't register service [%s]", Names::Service);
        return StartFailure;
    }
    if (!sessionBus.registerObject(Names::Object, _bluetoothManager,
                                   QDBusConnection::ExportAdaptors)) {
        LOG_LINE(LogError, "DBUS: Can't register object [%s]", Names::Object);
        return StartFailure;
    }

    LOG_LINE(LogInformation, "Bluetooth Manager running");
    SignalGate signalGate;
    QCoreApplication::postEvent(&signalGate, new QEvent(QEvent::User));
    _application->exec();

    if (_bluetoothManagerAdaptor) {
        LOG_LINE_AS(Names::SoundManagerObject, __PRETTY_FUNCTION__, LogInformation,
                    "Gracefully stop BluetoothManager Adapter...");
        delete _bluetoothManagerAdaptor;
        _bluetoothManagerAdaptor = nullptr;
    }
    if (_bluetoothManager) {
        LOG_LINE_AS(Names::SoundManagerObject, __PRETTY_FUNCTION__, LogInformation,
                    "Gracefully stop BluetoothManager...");
        delete _bluetoothManager;
        _bluetoothManager = nullptr;
    }
    LOG_LINE_AS(Names::SoundManagerObject, __PRETTY_FUNCTION__, LogInformation,
                "Succesfully terminated");
    return 0;
}
