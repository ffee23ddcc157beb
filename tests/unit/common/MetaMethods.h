#ifndef METAMETHODS_H
#define METAMETHODS_H

#include <QtCore/QFile>
#include <QtCore/QMetaMethod>
#include <QtCore/QStringList>

/** A class's own signals and slots in their order: "slot int SetPid(QString Pid)". */
inline QStringList metaMethods(const QMetaObject &object)
{
    QStringList methods;
    for (int i = object.methodOffset(); i < object.methodCount(); ++i) {
        const QMetaMethod method = object.method(i);
        QStringList arguments;
        for (int j = 0; j < method.parameterCount(); ++j)
            arguments << QString(method.parameterTypes().at(j) + ' '
                                 + method.parameterNames().at(j))
                             .trimmed();
        methods << QStringLiteral("%1 %2 %3(%4)")
                       .arg(method.methodType() == QMetaMethod::Signal ? "signal" : "slot",
                            method.typeName(), method.name(), arguments.join(", "));
    }
    return methods;
}

/** What a file says that they are, below the name of each class. */
inline QStringList linesOf(const char *path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString(file.readAll()).trimmed().split('\n')
                                          : QStringList();
}

#endif
