#ifndef METAMETHODS_H
#define METAMETHODS_H

#include <QtCore/QMetaMethod>
#include <QtCore/QStringList>

/** A class's own signals and slots in their order: "slot int SetPid(QString Pid)". */
inline QStringList metaMethods(const QMetaObject &object)
{
    QStringList methods;
    for (int i = object.methodOffset(); i < object.methodCount(); ++i) {
        const QMetaMethod method = object.method(i);
        QStringList arguments;
        for (int j = 0; j < method.parameterCount(); ++j) {
            const QString type = QString::fromLatin1(method.parameterTypes().at(j));
            const QString name = QString::fromLatin1(method.parameterNames().at(j));
            arguments << (name.isEmpty() ? type : type + QLatin1Char(' ') + name);
        }
        methods << QStringLiteral("%1 %2 %3(%4)")
                       .arg(method.methodType() == QMetaMethod::Signal ? "signal" : "slot",
                            QString::fromLatin1(method.typeName()),
                            QString::fromLatin1(method.name()), arguments.join(", "));
    }
    return methods;
}

#endif
