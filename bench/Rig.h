#ifndef RIG_H
#define RIG_H

#include "Bus.h"
#include "Subject.h"

#include <memory>

/// Where the product shows the build folder.
QString programOf(const QString &pathInBuild);
QString serviceProgram();
QString minimalServiceProgram();

/**
 * Two buses without anybody else on them, and the service or its baseline, which is on the bus when
 * the rig is made. Bluetooth is off at first.
 */
class Rig
{
public:
    explicit Rig(const QString &program = serviceProgram());

    Bus &session() { return m_session; }
    Bus &system() { return m_system; }
    Subject &subject() { return *m_subject; }
    /// Seconds from the start of the process until its name had an owner.
    double startTime() const { return m_startTime; }

    /// Starts another process that is to use the same buses.
    std::unique_ptr<Subject> startBeside(const QString &program,
                                         const QStringList &arguments = {}) const;

    /// Seconds that one GetStatus takes, from the call to the answer.
    double timeGetStatus();
    /// Switches Bluetooth on; seconds from the call until it is announced.
    double switchOn();
    void switchOff();
    /// Calls SetEnabled and waits for its answer.
    void setEnabled(bool enable);
    /// Waits until Bluetooth is announced to be on and returns when that was.
    double waitUntilOn();

private:
    Bus m_session;
    Bus m_system;
    std::unique_ptr<Subject> m_subject;
    double m_startTime = 0;
};

#endif
