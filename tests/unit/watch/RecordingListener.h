#pragma once

#include "watch/VolumeWatchListener.h"

#include <functional>
#include <mutex>
#include <string>

/// Keeps what it is called for, one line a call. Any thread.
class RecordingListener : public VolumeWatchListener {
public:
    /// Run inside handleChangeFolder(), after the call was kept.
    std::function<void(std::string& path)> onChange;

    std::string calls() const
    {
        const std::lock_guard<std::mutex> held(mutex);
        return text;
    }

    void handleChangeFolder(std::string& path) override
    {
        keep("change " + path);
        if (onChange)
            onChange(path);
    }
    void handleNewFolder(std::string& dir, const char* name) override { keep("new folder " + dir + " " + name); }
    void handleNewFile(std::string& dir, const char* name) override { keep("new file " + dir + " " + name); }
    void handleMoveFolder(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName) override
    {
        keep("move folder " + fromDir + " " + fromName + " " + toDir + " " + toName);
    }
    void handleMoveFile(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName) override
    {
        keep("move file " + fromDir + " " + fromName + " " + toDir + " " + toName);
    }
    void handleDeleteFolder(std::string& dir, const char* name) override { keep("delete folder " + dir + " " + name); }
    void handleDeleteFile(std::string& dir, const char* name) override { keep("delete file " + dir + " " + name); }
    void handleModifyFile(std::string& dir, const char* name) override { keep("modify file " + dir + " " + name); }

private:
    void keep(const std::string& call)
    {
        const std::lock_guard<std::mutex> held(mutex);
        text += call + "\n";
    }

    mutable std::mutex mutex;
    std::string text;
};
