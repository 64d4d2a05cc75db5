// vrk/iosfwd.hpp: forward declarations of the vrk streams, stream buffers and
// strings, for headers that only pass them by reference.
#pragma once

namespace vrk {

template <class CharT> struct char_traits;
template <class CharT> class basic_streambuf;
template <class CharT> class basic_ios;
template <class CharT> class basic_ostream;
template <class CharT> class basic_istream;
template <class CharT> class basic_iostream;
template <class CharT> class basic_stringbuf;
template <class CharT> class basic_ostringstream;
template <class CharT> class basic_istringstream;
template <class CharT> class basic_stringstream;
template <class CharT> class string_base;
template <class CharT> class basic_string;

using streambuf = basic_streambuf<char>;
using ios = basic_ios<char>;
using ostream = basic_ostream<char>;
using istream = basic_istream<char>;
using iostream = basic_iostream<char>;
using stringbuf = basic_stringbuf<char>;
using osstream = basic_ostringstream<char>;
using isstream = basic_istringstream<char>;
using sstream = basic_stringstream<char>;
using string = basic_string<char>;

} // namespace vrk
