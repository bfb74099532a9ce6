#pragma once

#include "RandomVolume.h"

#include "support/TemporaryFolder.h"

#include <map>
#include <string>
#include <vector>

/// A volume whose folder tree changes at random, step by step. Each step changes it, has the kernel's events of that
/// routed one by one, and tells the model.
class EventSteps : public RandomVolume {
protected:
    using Step = bool (EventSteps::*)();

    struct Weighted {
        const char* name;
        int weight; ///< how often this one is taken, against the others
        Step step;
    };
    static const std::vector<Weighted>& allSteps();

    /// Takes one that can be taken.
    void takeStep();

    std::map<std::string, int> taken; ///< name of a step -> how often it was taken

private:
    // Steps with files (FileSteps.cpp); false, with nothing done, when there is nothing to do it with

    bool makeFile(); ///< removes one instead when there are many
    bool writeFile();
    bool removeFile();
    bool replaceFile();
    bool makeAndRemoveFile();
    bool moveFile();
    bool moveFileOntoAnother();
    bool moveFileOnAtOnce(); ///< twice, before the events of the first move are routed
    bool saveFile();         ///< as programs do: the new file beside the old one, then in its place
    bool loseNewFile();
    bool moveFileTo(const std::string& from, const std::string& to);

    // Steps with folders (FolderSteps.cpp), likewise

    bool makeFolder(); ///< removes one instead when there are many
    bool makeTree();   ///< likewise
    bool removeFolder();
    bool moveFolder();
    bool moveFolderOntoAnEmptyOne();
    bool moveFolderOnAtOnce();
    bool loseNewFolder();
    bool touchFolder();
    bool moveFolderTo(const std::string& from, const std::string& to);
    bool mayLeave(const std::string& folder) const;
    bool isMovable(const std::string& from, const std::string& to) const;

    // Steps with either, between the volume and a place that nobody watches (FolderSteps.cpp), likewise

    bool moveOut();
    bool moveIn();
    std::string newPathOutside() { return outside.path(std::to_string(++entriesOutside)); }

    TemporaryFolder outside;
    int entriesOutside = 0;
};
