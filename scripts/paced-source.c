/* Writes a test signal as raw 32-bit float mono samples, paced by CLOCK_MONOTONIC at
 * RATE × (1 + PPM/10^6) samples a second: a sound device whose clock is PPM off the
 * system's. The signal is a steady 440 Hz tone (0.1) with a 10 ms, 4 kHz marker burst
 * (0.4, Hann-windowed) centred on every whole second of real time, so that a recorder
 * that keeps this source on the system clock places the marks one second apart.
 *
 *   paced-source RATE PPM [SECONDS]        paced, to standard output, until SECONDS
 *                                          of real time have passed (or forever)
 *   paced-source RATE PPM SECONDS --burst  unpaced: SECONDS of signal at once, for a
 *                                          player whose device keeps the time
 * VELTO_PACED_VOICE=second gives the second voice: a 660 Hz tone and 2 kHz bursts, for
 * the other source of a recording that cancels echo (the same signal on both sources
 * would pass for the loudspeakers' echo in the microphone).
 * Built by scripts/sound-sandbox.sh with the system's C compiler. */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static double seconds_now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec * 1e-9;
}

static double tone_hertz = 440.0, mark_hertz = 4000.0;

static float sample_at(double true_seconds) {
    const double pi = 3.14159265358979323846;
    double value = 0.1 * sin(2 * pi * tone_hertz * true_seconds);
    const double mark = true_seconds - floor(true_seconds + 0.5); /* from the nearest whole second */
    if (fabs(mark) < 0.005) {
        const double window = 0.5 + 0.5 * cos(2 * pi * mark / 0.01);
        value += 0.4 * window * sin(2 * pi * mark_hertz * mark);
    }
    return (float)value;
}

/* Paced: what the pipe cannot take now is lost, as a device's samples are when
 * nobody reads them (no backlog of minutes arrives when a reader comes). Unpaced:
 * waits for the reader. Returns -1 once the reader has gone. */
static int write_samples(const float *samples, size_t count, int paced) {
    const char *bytes = (const char *)samples;
    size_t left = count * sizeof(float);
    while (left > 0) {
        ssize_t written = write(STDOUT_FILENO, bytes, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN && paced) return 0;
            return -1;
        }
        bytes += written;
        left -= (size_t)written;
    }
    return 0;
}

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: paced-source RATE PPM [SECONDS] [--burst]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    const char *voice = getenv("VELTO_PACED_VOICE");
    if (voice != NULL && strcmp(voice, "second") == 0) {
        tone_hertz = 660.0;
        mark_hertz = 2000.0;
    }
    const double rate = atof(argv[1]);
    const double ppm = atof(argv[2]);
    const double seconds = argc > 3 ? atof(argv[3]) : 0.0;
    const int burst = argc > 4 && strcmp(argv[4], "--burst") == 0;
    const double actual_rate = rate * (1.0 + ppm * 1e-6);
    if (!burst) fcntl(STDOUT_FILENO, F_SETFL, fcntl(STDOUT_FILENO, F_GETFL) | O_NONBLOCK);
    float block[4096];
    long long produced = 0;
    const double start = seconds_now();
    for (;;) {
        const double elapsed = burst ? seconds : seconds_now() - start;
        if (seconds > 0 && elapsed >= seconds && (burst ? produced >= (long long)(seconds * actual_rate) : 1)) break;
        long long due = (long long)floor((seconds > 0 && elapsed > seconds ? seconds : elapsed) * actual_rate);
        while (produced < due) {
            size_t count = (size_t)(due - produced);
            if (count > sizeof block / sizeof block[0]) count = sizeof block / sizeof block[0];
            for (size_t i = 0; i < count; ++i) block[i] = sample_at((double)(produced + (long long)i) / actual_rate);
            if (write_samples(block, count, !burst) != 0) return 0; /* the reader went away */
            produced += (long long)count;
        }
        if (!burst) {
            const struct timespec pause = {0, 5 * 1000 * 1000};
            nanosleep(&pause, NULL);
        }
    }
    return 0;
}
