/* Loaded into emulated tests. Qt asks the kernel whether it knows process descriptors and then has
   clone() make one with each process. qemu-user hands on the question to a kernel that does, but
   cannot do the latter, so that no process could be started. Here the answer is that the kernel
   does not; Qt then does without. */
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>

/* Programs of this machine, started by a test, cannot load this file. */
static void __attribute__((constructor)) beUnnoticed(void)
{
    unsetenv("LD_PRELOAD");
}

long syscall(long number, ...)
{
    long argument[6];
    va_list arguments;
    va_start(arguments, number);
    for (int i = 0; i < 6; ++i)
        argument[i] = va_arg(arguments, long);
    va_end(arguments);

    if (number == SYS_waitid && argument[0] == P_PIDFD) {
        errno = EINVAL;
        return -1;
    }
    static long (*next)(long, ...);
    if (!next)
        *(void **)&next = dlsym(RTLD_NEXT, "syscall");
    return next(number, argument[0], argument[1], argument[2], argument[3], argument[4],
                argument[5]);
}
