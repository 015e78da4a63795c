// SPDX-License-Identifier: MIT
// Focus tables. Only a handful of figures of the cameras' real tables are
// known: row lengths and end entries at a few zoom positions, and both ends
// of some rows. The rows are rebuilt from those: knots fix length, first and
// last entry of some rows, rows between follow linearly (the last entry
// geometrically, as it grows by orders of magnitude over the zoom range), and
// each row rises from its first entry in gaps that start at 1 and grow by a
// constant factor, like the cameras' own rows, whose fine steps at the near
// end open up toward the far end.
#include <algorithm>
#include <cmath>

#include "models/gen/ModelData.h"

namespace modelgen {
namespace {

// Sum of the first j gaps when the first is s0 and each is d+1 times the one
// before.
double rise(double s0, double d, int j)
{
    if (d == 0.0)
        return s0 * j;
    return s0 * std::expm1(j * std::log1p(d)) / d;
}

// m gaps from lo to hi, the first about s0, each a constant factor wider.
bool fill(int32_t lo, int32_t hi, int m, double s0, std::vector<int32_t>* out,
          std::string* error)
{
    const double span = static_cast<double>(hi) - lo;
    if (m <= 0 || span < s0 * m) {
        *error = "no room for " + std::to_string(m) + " gaps from " + std::to_string(lo) +
                 " to " + std::to_string(hi);
        return false;
    }
    double d = 0.0;
    if (span > s0 * m) {
        double below = 0.0, above = 1.0;
        while (rise(s0, above, m) < span)
            above *= 2.0;
        for (int i = 0; i < 200 && above - below > 1e-16; ++i) {
            double mid = (below + above) / 2.0;
            (rise(s0, mid, m) < span ? below : above) = mid;
        }
        d = (below + above) / 2.0;
    }
    for (int j = 0; j < m; ++j)
        out->push_back(lo + static_cast<int32_t>(std::llround(rise(s0, d, j))));
    out->push_back(hi);
    return true;
}

bool ascending(const std::vector<int32_t>& v)
{
    for (size_t i = 1; i < v.size(); ++i) {
        if (v[i] <= v[i - 1])
            return false;
    }
    return true;
}

struct RowPlan {
    int length = 0;
    int32_t first = 0;
    int32_t last = 0;
    bool knot = false;
};

bool planRows(const FocusOutline& outline, std::vector<RowPlan>* plan, std::string* error)
{
    const std::vector<FocusKnot>& k = outline.knots;
    if (k.size() < 2 || k.front().row != 0 || k.back().row != outline.rows - 1) {
        *error = "knots must include the first and the last row";
        return false;
    }
    plan->assign(outline.rows, RowPlan{});
    for (size_t i = 0; i + 1 < k.size(); ++i) {
        const FocusKnot& a = k[i];
        const FocusKnot& b = k[i + 1];
        for (int z = a.row; z <= b.row; ++z) {
            double t = static_cast<double>(z - a.row) / (b.row - a.row);
            RowPlan& p = (*plan)[z];
            p.length = static_cast<int>(std::lround(a.length + t * (b.length - a.length)));
            p.first = static_cast<int32_t>(std::lround(a.first + t * (b.first - a.first)));
            p.last = static_cast<int32_t>(
                std::lround(std::exp(std::log(a.last) + t * (std::log(b.last) - std::log(a.last)))));
        }
    }
    int shortest = k[0].length, longest = k[0].length;
    for (const FocusKnot& knot : k) {
        RowPlan& p = (*plan)[knot.row];
        p = RowPlan{knot.length, knot.first, knot.last, true};
        shortest = std::min(shortest, knot.length);
        longest = std::max(longest, knot.length);
    }

    // Interpolation never hits the total exactly: spread the rest one entry
    // at a time over rows between knots, evenly, so the knots keep their
    // figures and remain the shortest and longest rows.
    long total = 0;
    std::vector<int> free;
    for (int z = 0; z < outline.rows; ++z) {
        total += (*plan)[z].length;
        if (!(*plan)[z].knot)
            free.push_back(z);
    }
    long rest = outline.entries - total;
    if (rest != 0) {
        if (free.empty()) {
            *error = "no row between knots to take " + std::to_string(rest) + " entries";
            return false;
        }
        long n = std::labs(rest), sign = rest > 0 ? 1 : -1;
        long each = n / static_cast<long>(free.size());
        long extra = n % static_cast<long>(free.size());
        for (int z : free)
            (*plan)[z].length += static_cast<int>(sign * each);
        for (long i = 0; i < extra; ++i)
            (*plan)[free[i * static_cast<long>(free.size()) / extra]].length += static_cast<int>(sign);
        for (int z : free) {
            int len = (*plan)[z].length;
            if (len < shortest || len > longest) {
                *error = "knots leave " + std::to_string(rest) +
                         " entries over; row " + std::to_string(z) + " would get " +
                         std::to_string(len) + " outside " + std::to_string(shortest) + ".." +
                         std::to_string(longest);
                return false;
            }
        }
    }
    return true;
}

bool pinnedRow(const RowPlan& plan, const FocusPin& pin, std::vector<int32_t>* row,
               std::string* error)
{
    const std::vector<int32_t>& head = pin.head;
    const std::vector<int32_t>& tail = pin.tail;
    if (head.empty() || tail.empty() || head.front() != plan.first || tail.back() != plan.last ||
        !ascending(head) || !ascending(tail)) {
        *error = "head and tail must ascend and agree with the row's knot";
        return false;
    }
    const int h = static_cast<int>(head.size()), t = static_cast<int>(tail.size());
    if (plan.length < h + t) {
        *error = "row shorter than its head and tail";
        return false;
    }
    double s0 = h >= 2 ? head[h - 1] - head[h - 2] : 1.0;
    row->assign(head.begin(), head.end() - 1);
    if (!fill(head.back(), tail.front(), plan.length - t - (h - 1), s0, row, error))
        return false;
    if (t >= 2) {
        int32_t joinGap = (*row)[row->size() - 1] - (*row)[row->size() - 2];
        if (joinGap > tail[1] - tail[0]) {
            *error = "gaps would narrow where the tail begins";
            return false;
        }
    }
    row->insert(row->end(), tail.begin() + 1, tail.end());
    return true;
}

} // namespace

bool SynthesiseFocusTable(const FocusOutline& outline, std::vector<std::vector<int32_t>>* table,
                          std::string* error)
{
    std::vector<RowPlan> plan;
    if (!planRows(outline, &plan, error))
        return false;
    table->clear();
    long entries = 0;
    for (int z = 0; z < outline.rows; ++z) {
        std::vector<int32_t> row;
        const FocusPin* pin = nullptr;
        for (const FocusPin& p : outline.pins) {
            if (p.row == z)
                pin = &p;
        }
        const std::string where = "row " + std::to_string(z) + ": ";
        if (pin && !plan[z].knot) {
            *error = where + "a row given by its ends must be a knot";
            return false;
        }
        bool ok = pin ? pinnedRow(plan[z], *pin, &row, error)
                      : fill(plan[z].first, plan[z].last, plan[z].length - 1, 1.0, &row, error);
        if (!ok) {
            *error = where + *error;
            return false;
        }
        if (!ascending(row) || row.front() <= 0 || static_cast<int>(row.size()) != plan[z].length) {
            *error = where + "not strictly ascending and positive at its planned length";
            return false;
        }
        entries += static_cast<long>(row.size());
        table->push_back(std::move(row));
    }
    for (const FocusPin& p : outline.pins) {
        if (p.row < 0 || p.row >= outline.rows) {
            *error = "a row given by its ends is out of range";
            return false;
        }
    }
    if (entries != outline.entries) {
        *error = "entries came to " + std::to_string(entries);
        return false;
    }
    return true;
}

} // namespace modelgen
