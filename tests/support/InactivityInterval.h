// Shortens the requests' inactivity interval for the scope of one test.
#pragma once

#include "NBReplyTimeout.h"

class ScopedInactivityInterval
{
public:
    explicit ScopedInactivityInterval(int milliseconds)
        : m_previous(NBReplyTimeout::testInterval())
    {
        NBReplyTimeout::setTestInterval(milliseconds);
    }
    ~ScopedInactivityInterval() { NBReplyTimeout::setTestInterval(m_previous); }

private:
    int m_previous;
};
