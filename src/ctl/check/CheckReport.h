#pragma once

class ConfigurationCheck;

/// Prints what a check has found out: for people, one finding a line as "FILE:LINE: warning: REASON. REMEDY."
void printCheck(const ConfigurationCheck& check);

/// The same as one JSON object.
void printCheckAsJson(const ConfigurationCheck& check);
