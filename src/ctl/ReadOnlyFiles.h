#pragma once

/// The name of SQLite's file layer with one difference: every file is opened for reading only, whatever is asked for,
/// and no file is given another owner. Registers the layer at the first call, which is made before there are threads.
///
/// A connection that only reads still opens the log for writing where it may, as root always may, and gives it the
/// owner of the catalogue. The daemon may watch this folder, and would take both for changes.
const char* readOnlyFiles();
