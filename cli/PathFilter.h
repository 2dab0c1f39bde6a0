// The --include and --exclude patterns of sync, read as .gitignore reads its lines, on
// paths relative to the synced folders ("docs/a.txt"):
//   *  any run of characters but "/";  ?  one character but "/";  [abc] [a-z] [!a]  one of a set
//   ** a run of whole folders ("**/build", "logs/**", "a/**/b")
//   a pattern with a "/" but at its end is anchored at the synced folder ("/tmp", "docs/*.pdf");
//   one without matches a name at any depth ("*.o", "node_modules")
//   a pattern ending in "/" matches folders only ("cache/")
// The last pattern that matches a path decides; what is below an excluded folder is
// excluded with it, and what is below an included one included with it. When the first
// pattern is an --include, only what an --include matches is taken (other folders are
// looked into, for what they hold); otherwise everything is, but what an --exclude
// matches. Excluded paths are neither sent nor deleted, on either side.
#pragma once

#include <QList>
#include <QRegularExpression>
#include <QString>

class PathFilter
{
public:
    // Patterns in the order given; false (with `error`) for one that cannot be read.
    bool add(const QString& pattern, bool include, QString* error);
    bool isEmpty() const { return m_rules.isEmpty(); }

    enum class Verdict {
        Taken,
        LookedInto, // a folder taken only for what it holds
        Left,
    };
    // What the patterns make of a path (relative, "/" between names).
    Verdict of(const QString& path, bool folder) const;
    bool excluded(const QString& path, bool folder) const { return of(path, folder) == Verdict::Left; }

private:
    struct Rule
    {
        QRegularExpression expression;
        bool include = false;
        bool foldersOnly = false;
    };
    // The last rule that matches the path itself: 1 include, -1 exclude, 0 none.
    int verdict(const QString& path, bool folder) const;

    QList<Rule> m_rules;
};
