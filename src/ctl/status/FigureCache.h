#pragma once

#include "ctl/status/CatalogueFigures.h"

#include <optional>
#include <string>

/// Keeps the figures of catalogues from one run to the next, in the folder `quarrow` of the user's cache folder
/// ($XDG_CACHE_HOME, else ~/.cache), one file per catalogue, for its owner only. A file that is damaged, of another
/// state of the catalogue or of another user counts as none. Nothing here fails: without a home nothing is kept.
class FigureCache {
public:
    /// Where this user's files are. No folder is made before something is kept.
    FigureCache();

    /// The figures that were kept of the catalogue at `path` in this state (see CatalogueState).
    std::optional<CatalogueFigures> find(const std::string& path, const std::string& state) const;
    /// Replaces what was kept of the catalogue.
    void keep(const std::string& path, const std::string& state, const CatalogueFigures& figures) const;

private:
    std::string fileOf(const std::string& path) const;
    bool makeFolder() const;

    std::string base;   ///< the user's cache folder; empty without a home
    std::string folder; ///< the one in it
};
