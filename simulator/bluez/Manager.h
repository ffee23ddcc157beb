#ifndef MANAGER_H
#define MANAGER_H

#include "Bus.h"

class Adapter;
struct Context;

/// org.bluez.Manager, the object "/": there from the beginning, with or without an adapter.
class Manager
{
public:
    explicit Manager(Context *context);

    /// The one adapter is there from now on; signals it.
    void setAdapter(const Adapter *adapter);

private:
    void answerAdapter(const Call &call, bool isMeant) const;
    QVariant adapterPaths() const;

    Context *m_context;
    const Adapter *m_adapter = nullptr;
};

#endif
