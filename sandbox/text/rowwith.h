#ifndef TALLOWIN_SANDBOX_TEXT_ROWWITH_H
#define TALLOWIN_SANDBOX_TEXT_ROWWITH_H

#include <algorithm>
#include <iterator>

namespace sandbox {

/// The first of `rows` whose `member` equals `value`; null when there is none. Text is compared with a std::string.
template <class Rows, class Member, class Value>
auto const* rowWith(Rows const& rows, Member member, Value const& value) {
    auto const found = std::find_if(std::begin(rows), std::end(rows),
                                    [member, &value](auto const& row) { return value == row.*member; });
    return found == std::end(rows) ? nullptr : &*found;
}

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_TEXT_ROWWITH_H
