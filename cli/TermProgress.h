#pragma once
#include <QString>
#include <cstdio>

// GDAL's terminal progress: 0...10...20...30...40...50...60...70...80...90...100 - done.
// The plug-in's message is printed on its own line whenever it changes.
class TermProgress {
public:
    explicit TermProgress(std::FILE* out) : m_out(out) {}
    void Update(double percent, const QString& message);
    // Ends a line left open by a run that stopped before 100.
    void Finish();

private:
    std::FILE* m_out;
    int m_lastTick = -1; // ticks of 2.5 %, 0..40
    QString m_message;
};
