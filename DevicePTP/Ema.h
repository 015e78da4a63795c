#pragma once

// Exponential moving average; smooths the battery voltage.
class ema {
public:
    ema(int period, double initial) : alpha(2.0 / (period + 1)), value(initial) {}
    double add(double sample)
    {
        value = alpha * sample + (1.0 - alpha) * value;
        return value;
    }
    double GetVal() const { return value; }

private:
    double alpha;
    double value;
};
