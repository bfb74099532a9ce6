#pragma once

#include <string>

/// Receives the changes of one volume. `dir` and `path` are absolute folder paths as they were added to the watch.
/// `name` is the bare entry name as the kernel reports it: any bytes but NUL and "/", or empty when the event has no
/// name.
///
/// The daemon's event loop calls handleChangeFolder() alone, on the watcher thread. It logs what that throws (a
/// std::exception or a bare `const char*`) and goes on with the next folder. The other operations are called by
/// programs that pass kernel events to VolumeWatcher: on the thread of such a program, which also gets what they throw.
class VolumeWatchListener {
public:
    virtual ~VolumeWatchListener();

    /// Something changed in the folder.
    virtual void handleChangeFolder(std::string& path) = 0;
    /// A folder appeared.
    virtual void handleNewFolder(std::string& dir, const char* name) = 0;
    /// A file appeared.
    virtual void handleNewFile(std::string& dir, const char* name) = 0;
    /// A folder was moved or renamed. Moves from one volume to another are not reported.
    virtual void handleMoveFolder(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName)
        = 0;
    /// A file was moved or renamed. Moves from one volume to another are not reported.
    virtual void handleMoveFile(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName) = 0;
    /// A folder was removed.
    virtual void handleDeleteFolder(std::string& dir, const char* name) = 0;
    /// A file was removed.
    virtual void handleDeleteFile(std::string& dir, const char* name) = 0;
    /// A file was written or its attributes changed.
    virtual void handleModifyFile(std::string& dir, const char* name) = 0;
};
