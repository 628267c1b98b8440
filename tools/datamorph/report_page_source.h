// The page that a report is filled into: {{names}} stand where its parts go.
#ifndef DATAMORPH_REPORT_PAGE_SOURCE_H
#define DATAMORPH_REPORT_PAGE_SOURCE_H

extern const char report_page_source[];

#endif
