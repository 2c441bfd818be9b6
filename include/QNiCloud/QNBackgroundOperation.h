#pragma once

// The token a caller of the downloads manager keeps to cancel what it asked for.

/// A cancellable token. The downloads manager hands one to every caller of its download
/// operations, and a caller may share one token between many requests and its own long work:
/// cancelling it ends every request made with it (their queued files are dropped without
/// callbacks). Any object implementing this interface may be passed wherever a token is asked
/// for; `QNiCloudBackgroundOperation` is the library's own.
///
/// Threads: implementations must allow `cancel` and `isCancelled` from any thread.
class QNBackgroundOperation {
public:
    virtual ~QNBackgroundOperation() = default;

    /// Marks the token cancelled. There is no way back.
    virtual void cancel() = 0;
    virtual bool isCancelled() const = 0;
};
