/* The sandbox's sound card: takes audio out of pipe sinks and into a pipe source at the
 * pace of one clock, RATE × (1 + PPM/10^6) frames a second of CLOCK_MONOTONIC, as the
 * converters of a real card do. A null sink keeps time by rendering ahead in chunks whose
 * timing wanders by milliseconds (its monitor drifts some tens of ppm against the system
 * clock for a minute at a time); a pipe sink emptied at a steady pace runs on the pace.
 *
 *   paced-clock RATE PPM OUT_FIFO:CHANNELS [IN_FIFO:OUT_FIFO:CHANNELS ...]
 *
 * OUT_FIFO:CHANNELS      a pipe sink's FIFO, emptied at the pace (the loudspeakers)
 * IN:OUT:CHANNELS        a pipe sink's FIFO whose audio goes on, at the pace, into a pipe
 *                        source's FIFO (the microphone's converter: what plays into the
 *                        sink is what the source hears)
 *
 * Frames are 32-bit float. A sink that is a little late (up to 50 ms) is caught up with;
 * one that gave nothing for longer (an idle pipe sink renders nothing) has underrun, and
 * that time is gone, as a card plays silence then and does not play faster afterwards;
 * the microphone hears silence for it. A source whose FIFO is full loses what does not
 * fit, as a device's samples are lost when nobody reads them. Runs until killed.
 * Built by scripts/sound-sandbox.sh with the system's C compiler. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#define MAX_PATHS 8

/* A FIFO holds 64 KiB by default: 170 ms of the speakers, 340 ms of the microphone, which
 * a pipe sink fills ahead of the card and its monitor hands on that early. One page keeps
 * a sink's latency to a real card's, 10-20 ms. The microphone's FIFO is its capture ring,
 * which the pipe source empties when it wakes: 85 ms, so that a late wake-up loses nothing. */
#define SINK_FIFO_BYTES 4096
#define SOURCE_FIFO_BYTES 16384

struct path {
    int in_fd;          /* the pipe sink's FIFO, read at the pace */
    int out_fd;         /* the pipe source's FIFO, or -1 to drop what is read */
    size_t frame_bytes;
    long long taken;    /* bytes read from the sink so far */
    int in_sized, out_sized;
};

/* A FIFO's size can only shrink below what it holds: what it held when the clock
 * started (audio rendered or heard before) goes, and it is tried again every round. */
static void shrink(int fd, int bytes, int *sized) {
    static char stale[1 << 16];
    if (*sized || fd < 0) return;
    if (fcntl(fd, F_SETPIPE_SZ, bytes) < 0 && errno == EBUSY) {
        while (read(fd, stale, sizeof stale) > 0) {
        }
        if (fcntl(fd, F_SETPIPE_SZ, bytes) < 0) return;
    }
    *sized = 1;
}

static double seconds_now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec * 1e-9;
}

static int open_fifo(const char *path) {
    /* O_RDWR never blocks on a FIFO's other end and never sees it close. */
    int fd = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) fprintf(stderr, "paced-clock: cannot open %s: %s\n", path, strerror(errno));
    return fd;
}

static int parse_path(char *text, struct path *path) {
    char *fields[3];
    int count = 0;
    for (char *token = strtok(text, ":"); token != NULL && count < 3; token = strtok(NULL, ":")) fields[count++] = token;
    if (count < 2) return -1;
    const int channels = atoi(fields[count - 1]);
    if (channels < 1 || channels > 32) return -1;
    path->frame_bytes = (size_t)channels * sizeof(float);
    path->taken = 0;
    path->in_sized = path->out_sized = 0;
    path->in_fd = open_fifo(fields[0]);
    path->out_fd = count == 3 ? open_fifo(fields[1]) : -1;
    return path->in_fd < 0 || (count == 3 && path->out_fd < 0) ? -1 : 0;
}

/* Into a pipe source's FIFO. While nobody records from the source, nobody reads the
 * FIFO either: the oldest audio in it gives way, as in a card's capture ring, so that a
 * recording starts with what the microphone hears now. */
static void pass_on(int fd, const char *bytes, size_t count) {
    static char stale[1 << 16];
    int held = 0;
    const int capacity = fcntl(fd, F_GETPIPE_SZ);
    if (capacity > 0 && ioctl(fd, FIONREAD, &held) == 0 && held + (long long)count > capacity) {
        size_t excess = (size_t)(held + (long long)count - capacity);
        if (excess > sizeof stale) excess = sizeof stale;
        if (read(fd, stale, excess) < 0 && errno != EAGAIN) fprintf(stderr, "paced-clock: read: %s\n", strerror(errno));
    }
    if (write(fd, bytes, count) < 0 && errno != EAGAIN) fprintf(stderr, "paced-clock: write: %s\n", strerror(errno));
}

/* Takes what is due from the sink (whole frames) and passes it on. */
static void serve(struct path *path, long long due_frames, long long late_frames) {
    static char buffer[1 << 16];
    const long long late_bytes = late_frames * (long long)path->frame_bytes;
    long long missing = due_frames * (long long)path->frame_bytes - path->taken - late_bytes;
    if (missing > 0) {
        /* An underrun: the sink gave nothing for that time; the microphone hears silence. */
        path->taken += missing;
        static const char silence[1 << 14];
        while (path->out_fd >= 0 && missing > 0) {
            const size_t chunk = missing < (long long)sizeof silence ? (size_t)missing : sizeof silence;
            pass_on(path->out_fd, silence, chunk);
            missing -= (long long)chunk;
        }
    }
    long long wanted = due_frames * (long long)path->frame_bytes - path->taken;
    while (wanted > 0) {
        size_t chunk = wanted < (long long)sizeof buffer ? (size_t)wanted : sizeof buffer;
        chunk -= chunk % path->frame_bytes;
        if (chunk == 0) return;
        ssize_t got = read(path->in_fd, buffer, chunk);
        if (got <= 0) return; /* the sink is behind: the rest is taken once it has rendered */
        got -= got % (ssize_t)path->frame_bytes; /* a pipe sink writes whole frames */
        path->taken += got;
        wanted -= got;
        if (path->out_fd >= 0) pass_on(path->out_fd, buffer, (size_t)got);
    }
}

int main(int argc, char **argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: paced-clock RATE PPM OUT_FIFO:CHANNELS [IN_FIFO:OUT_FIFO:CHANNELS ...]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    const double rate = atof(argv[1]) * (1.0 + atof(argv[2]) * 1e-6);
    if (!(rate > 0)) {
        fprintf(stderr, "paced-clock: bad rate\n");
        return 2;
    }
    struct path paths[MAX_PATHS];
    int path_count = 0;
    for (int i = 3; i < argc && path_count < MAX_PATHS; ++i) {
        if (parse_path(argv[i], &paths[path_count]) != 0) {
            fprintf(stderr, "paced-clock: bad path %s\n", argv[i]);
            return 2;
        }
        ++path_count;
    }
    const double start = seconds_now();
    for (;;) {
        const long long due = (long long)floor((seconds_now() - start) * rate);
        for (int i = 0; i < path_count; ++i) {
            shrink(paths[i].in_fd, SINK_FIFO_BYTES, &paths[i].in_sized);
            shrink(paths[i].out_fd, SOURCE_FIFO_BYTES, &paths[i].out_sized);
            serve(&paths[i], due, (long long)(0.05 * rate));
        }
        const struct timespec pause = {0, 2 * 1000 * 1000};
        nanosleep(&pause, NULL);
    }
}
