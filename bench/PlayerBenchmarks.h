// Each prints its rows of the results table and says there how it measured.
#pragma once

void MeasureStartLatency();
void MeasurePlayingCost();
void MeasureManyPlayers();
void MeasureProgressAccuracy();
