#ifndef PRODUCT_CONFIGURATION_H
#define PRODUCT_CONFIGURATION_H

#include <QtCore/QString>

class Configuration
{
public:
    Configuration(const QString &objectPath);
    bool isValid() const;
    int ReadConfigValue(const QString &section, const QString &key, int defaultValue, bool *ok,
                        bool flag);
    QString ReadConfigValue(const QString &section, const QString &key, const QString &defaultValue,
                            bool *ok, bool flag);
    bool WriteConfigValue(const QString &section, const QString &key, const QString &text,
                          bool flag);
};

#endif
