#include <gtest/gtest.h>

#include <cmath>

#include "signal/SilenceWatch.hpp"

namespace velto {
namespace {

using Kind = RecordingEvent::Kind;
using Source = RecordingEvent::Source;

constexpr float kZero = -160.0f;     // the meter's reading of exact zeros
constexpr float kSpeech = -20.0f;

// Feeds `peak` in 0.1 s spans from `fromSeconds` up to `toSeconds` and returns the events.
std::vector<RecordingEvent> feed(SilenceWatch& watch, float peak, int fromTenths, int toTenths) {
    std::vector<RecordingEvent> events;
    for (int tenths = fromTenths + 1; tenths <= toTenths; ++tenths) {
        if (auto event = watch.observe(peak, tenths / 10.0)) events.push_back(*event);
    }
    return events;
}

TEST(SilenceWatch, ReportsTenSecondsOfSilenceOnceWithItsStartAndTheSignalWhenItReturns) {
    SilenceWatch watch(Source::systemAudio);
    EXPECT_TRUE(feed(watch, kSpeech, 0, 20).empty());
    // Silent from 2.0 s: nothing until it has lasted 10 s, at 12.0 s exactly.
    EXPECT_TRUE(feed(watch, kZero, 20, 119).empty());
    auto silence = watch.observe(kZero, 12.0);
    ASSERT_TRUE(silence);
    EXPECT_EQ(silence->kind, Kind::silence);
    EXPECT_EQ(silence->source, Source::systemAudio);
    EXPECT_DOUBLE_EQ(silence->elapsedSeconds, 2.0);
    // Said once, however long it lasts.
    EXPECT_TRUE(feed(watch, kZero, 120, 600).empty());
    EXPECT_TRUE(watch.isReportedSilent());

    // The signal is back in the span that starts at 60.0 s.
    auto signal = watch.observe(kSpeech, 60.1);
    ASSERT_TRUE(signal);
    EXPECT_EQ(signal->kind, Kind::signal);
    EXPECT_DOUBLE_EQ(signal->elapsedSeconds, 60.0);
    EXPECT_TRUE(feed(watch, kSpeech, 601, 700).empty());

    // A second silence is a new one, counted from its own start.
    EXPECT_TRUE(feed(watch, kZero, 700, 799).empty());
    auto again = watch.observe(kZero, 80.0);
    ASSERT_TRUE(again);
    EXPECT_DOUBLE_EQ(again->elapsedSeconds, 70.0);
}

TEST(SilenceWatch, OnlyPeaksBelowMinusNinetyDecibelsCountAndAnyLouderSpanRestartsTheCount) {
    SilenceWatch watch(Source::microphone);
    // A quiet room is not digital silence.
    EXPECT_TRUE(feed(watch, -89.9f, 0, 200).empty());
    EXPECT_TRUE(feed(watch, -90.5f, 200, 299).empty());
    // One span of signal 9.9 s into the silence: the count starts over after it.
    EXPECT_TRUE(feed(watch, kSpeech, 299, 300).empty());
    EXPECT_TRUE(feed(watch, -90.5f, 300, 399).empty());
    auto silence = watch.observe(-90.5f, 40.0);
    ASSERT_TRUE(silence);
    EXPECT_DOUBLE_EQ(silence->elapsedSeconds, 30.0);
    // A meter that broke (NaN) does not end a silence nor start one by itself.
    EXPECT_FALSE(watch.observe(std::nanf(""), 40.1));
    EXPECT_TRUE(watch.isReportedSilent());
}

TEST(SilenceWatch, ASourceSilentFromTheStartIsSilentSinceZero) {
    SilenceWatch watch(Source::microphone, 10.0);
    EXPECT_TRUE(feed(watch, kZero, 0, 99).empty());
    auto silence = watch.observe(kZero, 10.0);
    ASSERT_TRUE(silence);
    EXPECT_DOUBLE_EQ(silence->elapsedSeconds, 0.0);
}

}  // namespace
}  // namespace velto
