#pragma once

// The opaque identity of a signed-in cloud account: present while an account is signed in,
// different between accounts, equal for the same account. A value; any thread.

#include <string>
#include <utility>

namespace qn {

class UbiquityIdentityToken {
public:
    explicit UbiquityIdentityToken(std::string opaque) : opaque_(std::move(opaque)) {}

    /// The token's archived form; equal tokens archive alike.
    const std::string& archived() const { return opaque_; }

    friend bool operator==(const UbiquityIdentityToken&, const UbiquityIdentityToken&) = default;

private:
    std::string opaque_;
};

}  // namespace qn
