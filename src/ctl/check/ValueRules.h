#pragma once

class FindingsAbout;
struct _xmlNode; // NOLINT(bugprone-reserved-identifier): the name is libxml2's

/// Warns of values that the daemon reads otherwise than they look: none, cut short, with blanks around, and of those
/// that stand twice where one counts.
void checkValues(const _xmlNode* rootElement, const FindingsAbout& found);
