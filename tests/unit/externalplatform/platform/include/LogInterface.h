#ifndef PRODUCT_LOGINTERFACE_H
#define PRODUCT_LOGINTERFACE_H

class LogInterface
{
public:
    LogInterface(const char *objectPath);
    void EmitLogString(int level, const char *text, const char *objectPath);
};

#endif
