// Builds the four process-wide objects, runs the event loop and takes them down.
#include <signal.h>
#include <stdio.h>

#include <QtCore/QCoreApplication>
#include <QtDBus/QDBusConnection>

#include "BluetoothManager.h"
#include "BluetoothManagerAdaptor.h"
#include "LogInterface.h"
#include "LogLine.h"

// The first two live until the process ends: anything that still runs then may log.
QCoreApplication *_application = 0;
LogInterface *_logInterface = 0;
BluetoothManager *_bluetoothManager = 0;
BluetoothManagerAdaptor *_bluetoothManagerAdaptor = 0;

namespace {

const int StartFailure = -1;

// Runs asynchronously on the main thread: the log client is made for that, and exit() only stores
// numbers and wakes the loop. Nothing else may be added here.
void signals_handler(int sig)
{
    if (sig != SIGINT && sig != SIGTERM)
        return;
    LOG_LINE(LogWarning, "signal SIGINT or SIGTERM received");
    _application->exit(0);
}

void reportMissingBus(const char *text)
{
    LOG_LINE(LogError, "%s", text);
    puts(text);
}

} // namespace

int main(int argc, char **argv)
{
    _application = new QCoreApplication(argc, argv);
    _logInterface = new LogInterface(Names::LogObject);
    LOG_LINE(LogInformation, "Starting Bluetooth Manager...");

    if (signal(SIGINT, signals_handler) == SIG_ERR)
        LOG_LINE(LogWarning, "Can't catch SIGINT");
    if (signal(SIGTERM, signals_handler) == SIG_ERR)
        LOG_LINE(LogWarning, "Can't catch SIGTERM");

    QDBusConnection sessionBus = QDBusConnection::sessionBus();
    if (!sessionBus.isConnected()) {
        reportMissingBus("DBUS: Can't connect session bus");
        return StartFailure;
    }
    if (!QDBusConnection::systemBus().isConnected()) {
        reportMissingBus("DBUS: Can't connect system bus");
        return StartFailure;
    }

    _bluetoothManager = new BluetoothManager;
    if (!_bluetoothManager->isValid()) {
        LOG_LINE_FOR(Names::SoundManagerObject, LogError,
                     "Impossible to crate a valid SoundManager");
        return StartFailure;
    }
    _bluetoothManagerAdaptor = new BluetoothManagerAdaptor(_bluetoothManager);

    if (!sessionBus.registerService(QLatin1String(Names::Service))) {
        LOG_LINE(LogError, "DBUS: Can't register service [%s]", Names::Service);
        return StartFailure;
    }
    if (!sessionBus.registerObject(QLatin1String(Names::Object), _bluetoothManager,
                                   QDBusConnection::ExportAdaptors)) {
        LOG_LINE(LogError, "DBUS: Can't register object [%s]", Names::Object);
        return StartFailure;
    }

    LOG_LINE(LogInformation, "Bluetooth Manager running");
    _application->exec();

    if (_bluetoothManagerAdaptor) {
        LOG_LINE_FOR(Names::SoundManagerObject, LogInformation,
                     "Gracefully stop BluetoothManager Adapter...");
        delete _bluetoothManagerAdaptor;
        _bluetoothManagerAdaptor = 0;
    }
    if (_bluetoothManager) {
        LOG_LINE_FOR(Names::SoundManagerObject, LogInformation,
                     "Gracefully stop BluetoothManager...");
        delete _bluetoothManager;
        _bluetoothManager = 0;
    }
    LOG_LINE_FOR(Names::SoundManagerObject, LogInformation, "Succesfully terminated");
    return 0;
}
