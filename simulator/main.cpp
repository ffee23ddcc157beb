#include "product/Control.h"
#include "product/Product.h"

#include <QCoreApplication>

#include <cstdio>
#include <unistd.h>

namespace {

/// The value of an environment variable that is meant for this program alone, taken away.
QString takeVariable(const char *name)
{
    const QString value = qEnvironmentVariable(name);
    qunsetenv(name);
    return value;
}

int fail(const QString &why)
{
    fprintf(stderr, "virtual-product: %s\n", qPrintable(why));
    return 1;
}

} // namespace

/// Run by virtual-product inside of its namespaces, which tells everything through the environment:
/// the service ends processes by what their command lines contain.
int main(int argc, char **argv)
{
    if (!qEnvironmentVariableIsSet("PRODUCT_SERVICE") || getppid() != 1)
        return fail("this program works inside of its namespaces only; start virtual-product");
    const bool realPulse = takeVariable("PRODUCT_PULSE") == "real";
    const QStringList environment =
        takeVariable("PRODUCT_ENVIRONMENT").split('\n', Qt::SkipEmptyParts);
    const QString under = takeVariable("PRODUCT_UNDER");
    const QStringList lines = takeVariable("PRODUCT_TELL").split('\n', Qt::SkipEmptyParts);
    const bool startsService = takeVariable("PRODUCT_SERVICE") == "start";

    QCoreApplication application(argc, argv);
    const QString out = "/run/product/out";
    Product product(out, realPulse, environment, under);
    Control control(product);
    QString error = product.start();
    if (error.isEmpty() && !control.listen(out + "/control"))
        error = "the control socket: " + control.errorString();
    for (const QString &line : lines) {
        if (error.isEmpty())
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
