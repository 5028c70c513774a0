// Why a row gives no lines.
#pragma once

namespace zol::moatkeeper
{

enum class Unusable {
    // The row is passed over.
    Disabled,
    NoInInterface,
    PriorityZero,
    Incomplete,       // a filter with an empty interface, criteria or mode
    InvalidReference, // no filter of that id is in use, or its mode is invalid
    NoMatch,          // a filter rule without a value to match

    // The row becomes a record without lines.
    InvalidVlanId,
    UnknownProtocol,
    InvalidTarget,
    UnknownPolicy,
    InvalidMode,
    InvalidVlanMatch,
    InvalidMatchType,
};

} // namespace zol::moatkeeper
