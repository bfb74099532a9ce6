#pragma once

/// The name of SQLite's file layer with one difference: it changes nothing. Every file is opened for reading only,
/// whatever is asked for, none is removed, and none is given another owner or mode. Opening never waits, for a pipe for
/// example. Registers the layer at the first call.
///
/// A connection that only reads still opens the log for writing where it may, as root always may, gives it the owner
/// and the mode of the catalogue, and removes it when the catalogue is empty. The daemon may watch this folder, and
/// would take all that for changes.
const char* readOnlyFiles();
