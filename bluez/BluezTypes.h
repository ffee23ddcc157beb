// The value types that the BlueZ 4 interfaces carry, shared by the generated proxies.
#ifndef BLUEZTYPES_H
#define BLUEZTYPES_H

#include <QtCore/QMap>
#include <QtCore/QMetaType>
#include <QtCore/QString>
#include <QtCore/QVariant>
#include <QtDBus/QDBusArgument>
#include <QtDBus/QDBusMetaType>
#include <QtDBus/QDBusObjectPath>
#include <QtDBus/QDBusVariant>

/** Properties by name, a{sv}. QtDBus decodes it by itself; a repeated key is kept, latest first. */
typedef QMap<QString, QVariant> Qt_Type_dict_sv;

/** Service records by handle, a{us}. */
typedef QMap<uint, QString> Qt_Type_dict_us;

/**
 * Written out instead of Q_DECLARE_METATYPE to register QtDBus's own operators together with the
 * name, at the first use of the type: a proxy call whose reply type QtDBus does not know aborts the
 * process, and this is the one place that every such call passes before QtDBus looks.
 */
template<>
struct QMetaTypeId<Qt_Type_dict_us>
{
    enum { Defined = 1 };

    static int qt_metatype_id()
    {
        static int id = 0;
        if (id == 0) {
            // The non-null dummy keeps qRegisterMetaType from asking this very function.
            id = qRegisterMetaType("Qt_Type_dict_us",
                                   reinterpret_cast<Qt_Type_dict_us *>(quintptr(-1)));
            qDBusRegisterMetaType<Qt_Type_dict_us>();
        }
        return id;
    }
};

#endif
