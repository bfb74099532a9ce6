#pragma once

/// What pthread_join() and pthread_sigmask() of this program claim after they did their work, when it is not 0.
extern int joinResult;
extern int maskResult;
