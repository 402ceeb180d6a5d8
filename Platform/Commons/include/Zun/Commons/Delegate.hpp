// A callable bound to an object and one of its member functions, as thread settings carry it.
#pragma once

#include <functional>
#include <utility>

namespace Zun
{

template <class Signature>
class Delegate;

template <class R, class... Args>
class Delegate<R(Args...)>
{
public:
    Delegate() = default;
    template <class T>
    Delegate(T* object, R (T::*method)(Args...))
        : function([object, method](Args... args) { return (object->*method)(std::forward<Args>(args)...); })
    {
    }
    explicit Delegate(std::function<R(Args...)> callable) : function(std::move(callable)) {}

    R Invoke(Args... args) const { return function(std::forward<Args>(args)...); }
    R operator()(Args... args) const { return function(std::forward<Args>(args)...); }
    explicit operator bool() const noexcept { return static_cast<bool>(function); }

private:
    std::function<R(Args...)> function;
};

} // namespace Zun
