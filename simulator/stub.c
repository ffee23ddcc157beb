/*
 * Every program of the board that the service starts, by the name it is called under. It says who
 * it is, and then does what the virtual product tells it, which knows the faults, the state of the
 * board, and what the program would print and return. The connection stays open for as long as the
 * program lives: however that ends, its end is the news.
 *
 * Each message either way is one packet of texts with a zero between them:
 *   to the product    NAME BLUEZHOSTNAME ARGUMENT...   the first one
 *                     term                             SIGTERM has come, to be ignored or obeyed
 *   from the product  print TEXT, exit NUMBER, signal NUMBER
 *                     become PATH LIBRARY              the real program, with a library preloaded
 */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static int product;

static void tell(const char *texts, size_t size)
{
    /* A product that is gone is noticed when its orders end. */
    (void)!send(product, texts, size, MSG_NOSIGNAL);
}

static void tell_of_term(int signal_number)
{
    const int saved_error = errno;

    (void)signal_number;
    tell("term", sizeof "term");
    errno = saved_error;
}

static void connect_to_product(void)
{
    const struct sockaddr_un address = {AF_UNIX, "/run/product/stubs"};

    product = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (product < 0 || connect(product, (const struct sockaddr *)&address, sizeof address) != 0) {
        perror("no virtual product");
        exit(1);
    }
}

static void say_hello(int argc, char **argv)
{
    const char *slash = strrchr(argv[0], '/');
    const char *host_name = getenv("BLUEZHOSTNAME");
    FILE *hello;
    char *texts;
    size_t size;

    hello = open_memstream(&texts, &size);
    fprintf(hello, "%s%c%s%c", slash ? slash + 1 : argv[0], 0, host_name ? host_name : "", 0);
    for (int i = 1; i < argc; ++i)
        fprintf(hello, "%s%c", argv[i], 0);
    fclose(hello);
    tell(texts, size);
    free(texts);
}

static void become(const char *path, const char *library, char **argv)
{
    char descriptor[16];

    if (*library)
        setenv("LD_PRELOAD", library, 1);
    /* The one descriptor that PulseAudio does not close when it starts. */
    sprintf(descriptor, "%d", product);
    setenv("PULSE_PASSED_FD", descriptor, 1);
    execv(path, argv);
    perror(path);
    exit(127);
}

static void obey(const char *order, const char *value, char **argv)
{
    if (strcmp(order, "print") == 0) {
        fputs(value, stdout);
    } else if (strcmp(order, "exit") == 0) {
        exit(atoi(value));
    } else if (strcmp(order, "signal") == 0) {
        signal(atoi(value), SIG_DFL);
        raise(atoi(value));
    } else if (strcmp(order, "become") == 0) {
        become(value, value + strlen(value) + 1, argv);
    }
}

int main(int argc, char **argv)
{
    const struct sigaction on_term = {.sa_handler = tell_of_term, .sa_flags = SA_RESTART};
    char order[65536];
    sigset_t term;
    ssize_t size;

    connect_to_product();
    /* A SIGTERM that comes this early is told after the name. */
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, NULL);
    sigaction(SIGTERM, &on_term, NULL);
    say_hello(argc, argv);
    sigprocmask(SIG_UNBLOCK, &term, NULL);
    while ((size = recv(product, order, sizeof order - 2, 0)) > 0) {
        /* The second text may be missing. */
        order[size] = order[size + 1] = '\0';
        obey(order, order + strlen(order) + 1, argv);
    }
    return 1;
}
