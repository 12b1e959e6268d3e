// tarn::Exception, the base of every error the library reports.
//
// An Exception carries a message that is built in an output string stream, so
// a thrower can append values (a rounding-mode number, say) after
// construction. The library throws only IEEEFloat::error, which derives from
// this class; catching tarn::Exception or std::exception catches it too.
#pragma once

#include <exception>
#include <sstream>
#include <string>

namespace tarn {

class Exception : public std::exception {
public:
    /// A diagnostic the host program may install; see set_assertion_handler().
    using assertion_handler = void (*)(Exception const&) noexcept;

    /// Builds the exception with `msg` as its message. When `raise_assertion`
    /// is true, dump_msg_and_raise_assertion() runs as the constructor's very
    /// last step, so the diagnostic sees the complete object.
    Exception(std::string const& msg, bool raise_assertion) {
        stream_ << msg;
        if (raise_assertion) dump_msg_and_raise_assertion();
    }

    /// Copies carry the message as written so far and stay appendable. A copy
    /// never runs the diagnostic again: that happens once, at the throw site.
    Exception(Exception const& other)
        : std::exception(other), stream_(other.stream_.str(), std::ios_base::ate) {}

    Exception& operator=(Exception const& other) {
        if (this != &other) {
            std::exception::operator=(other);
            stream_.str(other.stream_.str());
            stream_.seekp(0, std::ios_base::end);
        }
        return *this;
    }

    /// Releases the message.
    ~Exception() noexcept override = default;

    /// Appends anything a standard output stream accepts to the message.
    template <class T>
    Exception& operator<<(T const& value) {
        stream_ << value;
        return *this;
    }

    /// The whole message. The pointer stays valid until the next call or the
    /// destruction of the exception. Never throws: if the copy cannot be made
    /// (allocation failure) the answer is the empty string.
    char const* what() const noexcept override {
        try {
            text_ = stream_.str();
            return text_.c_str();
        } catch (...) {
            return "";
        }
    }

    /// The diagnostic hook run by the constructor when its flag is true. By
    /// default it does nothing, so errors behave as ordinary C++ exceptions
    /// and callers catch them. A host program that wants every library error
    /// logged, or a debugger trap at the throw site, installs a handler with
    /// set_assertion_handler(). The hook must return normally for the throw
    /// that follows it to happen; a handler that aborts turns every error of
    /// the library into a fatal one.
    void dump_msg_and_raise_assertion() noexcept;

    /// Installs `handler` (nullptr restores the silent default) and returns
    /// the previous one. The handler is shared by all threads; installing it
    /// is atomic, and it must itself be safe to call from any thread.
    static assertion_handler set_assertion_handler(assertion_handler handler) noexcept;

private:
    std::ostringstream stream_;
    mutable std::string text_;
};

} // namespace tarn
