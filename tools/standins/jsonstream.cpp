// SPDX-License-Identifier: Apache-2.0
#include "jsonstream.h"

QList<QByteArray> takeJsonObjects(QByteArray& buffer)
{
    QList<QByteArray> objects;
    int depth = 0;
    int start = 0;
    int consumed = 0;
    bool inString = false;
    bool escaped = false;
    for (int i = 0; i < buffer.size(); ++i) {
        const char c = buffer.at(i);
        if (inString) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '{') {
            if (depth++ == 0)
                start = i;
        } else if (c == '}' && depth > 0 && --depth == 0) {
            objects << buffer.mid(start, i - start + 1);
            consumed = i + 1;
        }
    }
    buffer.remove(0, consumed);
    return objects;
}
