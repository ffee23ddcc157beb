#include "product/Control.h"
#include "product/ControlSocket.h"
#include "product/Product.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

/// The value of an environment variable that is meant for this program alone, taken away.
QString takeVariable(const char *name)
{
    const QString value = qEnvironmentVariable(name);
    qunsetenv(name);
    return value;
}

int fail(const QString &text)
{
    fprintf(stderr, "virtual-product: %s\n", qPrintable(text));
    return 1;
}

int terminationPipe[2];

void passOn(int)
{
    // A full pipe holds the same news already.
    (void)!write(terminationPipe[1], "", 1);
}

/// SIGTERM has the product end in order.
void quitOnTermination(Product &product)
{
    if (pipe2(terminationPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("cannot make a pipe");
    // A handler, not a signal mask, since programs inherit that.
    std::signal(SIGTERM, passOn);
    auto *notifier = new QSocketNotifier(terminationPipe[0], QSocketNotifier::Read, &product);
    QObject::connect(notifier, &QSocketNotifier::activated, &product, [&product, notifier] {
        notifier->setEnabled(false);
        product.quit(0);
    });
}

} // namespace

/// Run by virtual-product inside of its namespaces, which tells everything through the environment:
/// the service ends processes by what their command lines contain.
int main(int argc, char **argv)
{
    if (!qEnvironmentVariableIsSet("PRODUCT_SERVICE") || getppid() != 1)
        return fail("this program works inside of its namespaces only; start virtual-product");
    Options options;
    options.build = "/run/product/build";
    options.out = "/run/product/out";
    options.realPulse = takeVariable("PRODUCT_PULSE") != "scripted";
    options.environment = takeVariable("PRODUCT_ENVIRONMENT").split('\n', Qt::SkipEmptyParts);
    options.under = takeVariable("PRODUCT_UNDER");
    const QStringList lines = takeVariable("PRODUCT_TELL").split('\n', Qt::SkipEmptyParts);
    const bool startsService = takeVariable("PRODUCT_SERVICE") == "start";

    QCoreApplication application(argc, argv);
    Product product(options);
    Control control(product);
    ControlSocket socket(control, product.journal);
    quitOnTermination(product);
    QString error = product.start();
    if (error.isEmpty() && !socket.listen(options.out + "/control"))
        error = "the control socket: " + socket.errorString();
    for (const QString &line : lines) {
        if (!error.isEmpty())
            break;
        control.tell(line, [&error, line](const Control::Answer &answer) {
            if (!answer.ok)
                error = line + ": " + answer.text;
        });
    }
    if (error.isEmpty() && startsService)
        error = product.service.startService();
    if (!error.isEmpty())
        return fail(error);
    puts("ready");
    fflush(stdout);
    return QCoreApplication::exec();
}
