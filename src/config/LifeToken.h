// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <memory>

namespace trovan {

// Owned by an object whose callbacks may be run after it is gone (posted to a loop,
// queued on a pool): each callback carries a Watch and does nothing once the owner died.
class LifeToken {
public:
    class Watch {
    public:
        explicit operator bool() const { return !token_.expired(); }

    private:
        friend class LifeToken;
        explicit Watch(std::weak_ptr<char> token) : token_(std::move(token)) {}
        std::weak_ptr<char> token_;
    };

    Watch watch() const { return Watch(token_); }

private:
    std::shared_ptr<char> token_ = std::make_shared<char>(0);
};

} // namespace trovan
