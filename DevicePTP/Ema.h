// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// The smoothing of the battery voltage.

/// Exponential moving average; smooths the battery voltage. Not thread-safe:
/// its owner guards it.
class ema {
public:
    /// An average over about `period` samples, starting at `initial`.
    ema(int period, double initial) : alpha(2.0 / (period + 1)), value(initial) {}
    /// Takes one sample in and returns the new average.
    double add(double sample)
    {
        value = alpha * sample + (1.0 - alpha) * value;
        return value;
    }
    /// The average now.
    double GetVal() const { return value; }

private:
    double alpha;
    double value;
};
