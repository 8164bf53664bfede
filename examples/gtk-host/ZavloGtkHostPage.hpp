#pragma once

/// The demo page (page.html, built in): one button per bridge method and "Run all".
extern const char* const kZavloGtkHostPage;
