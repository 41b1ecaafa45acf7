// Symbol visibility for libWexOamBinLogXmlReader.
//
// The library is built with hidden visibility; everything that belongs to the
// public interface is marked with WEXBL_API.
#ifndef WEX_OAM_BINLOG_XML_READER_EXPORT_H
#define WEX_OAM_BINLOG_XML_READER_EXPORT_H

#if defined(WEXBL_BUILDING_LIBRARY)
#define WEXBL_API __attribute__((visibility("default")))
#else
#define WEXBL_API
#endif

#endif
