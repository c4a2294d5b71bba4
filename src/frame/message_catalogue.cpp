// message_catalogue.cpp: the catalogue data. Nothing here runs.

#include "frame/message_catalogue.h"

namespace qbsmtp {

const os::MessageResource event_texts[] = {
    {event::session_started, "Inizio sessione ricezione\r\n"},
    {event::session_ended, "Fine sessione ricezione\r\n"},
    {event::send_module_started, "Inizio modulo invio (%1 %2)\r\n"},
    {event::send_module_found_file, "Modulo invio ha trovato il file %1\r\n"},
    {event::send_succeeded, "Modulo invio terminato con successo; codice risposta %1\r\n"},
    {event::mime_started, "Inizio MIME (%1 %2)\r\n"},
    {event::mime_ending, "Termine MIME\r\n"},
    {event::mime_ended, "MIME terminato\r\n"},
    {event::mail_accepted, "Posta SMTP accettata: %1\r\n"},
    {event::debug_text, "%1\r\n"},
    {event::port_in_use,
     "Questa porta SMTP \xe8 gi\xe0 utilizzata, un altro server ha potuto funzionare\r\n"},
    {event::client_refused, "Connessione SMTP da %1 rifiutata: indirizzo non ammesso\r\n"},
    {event::session_limit_reached,
     "Connessione SMTP da %1 rifiutata: gi\xe0 %2 sessioni attive\r\n"},
    {event::message_too_large,
     "Messaggio SMTP da <%1> rifiutato: supera il limite di %2 byte (file cancellato)\r\n"},
    {event::tls_certificate_unusable,
     "Certificato TLS %1 o chiave %2 non utilizzabili: %3 (STARTTLS non offerto)\r\n"},
    {event::tls_handshake_failed, "TLS con client SMTP %1 fallito: %2 (connessione chiusa)\r\n"},
    {event::relay_unverified, "Certificato dell'SMTP remoto %1 non verificato (RelayVerify 0)\r\n"},
    {event::mime_reinitialised, "Reinizializzazione MIME\r\n"},
    {event::duplicate_dropped,
     "File %1 duplica il messaggio precedente file %2 (messaggio ignorato, file cancellato)\r\n"},
    {event::address_domain_mismatch,
     "Il dominio di indirizzo (%1) non corrisponde al server di fax (%2). Indirizzo <%3> "
     "scartato\r\n"},
    {event::create_directory_failed, "CreaDirectory(%1) fallito: %2\r\n"},
    {event::create_thread_failed, "CreaThread(%1) fallito: %2\r\n"},
    {event::create_file_failed, "Errore in creazione file %1: %2\r\n"},
    {event::open_file_failed, "Errore in apertura file %1: %2\r\n"},
    {event::write_failed, "Errore in scrittura %1: %2\r\n"},
    {event::copy_file_failed, "Errore in copia file %1 to %2: %3\r\n"},
    {event::spool_rename_failed,
     "Errore in rinomina file %1 in %2: %3 (messaggio accettato, non consegnato)\r\n"},
    {event::delete_file_failed, "Errore in cancellazione file %1: %2\r\n"},
    {event::port_owned_by_other_server,
     "Questa porta SMTP \xe8 gi\xe0 utilizzata, STMP Receive \xe8 disattivata,%1 Altro server SMTP "
     "ha restituito:%2\"%3\"\r\n"},
    {event::file_name_too_long, "Il nome file %1... \xe8 troppo lungo\r\n"},
    {event::winsock_start_failed, "Impossibile inizializzare WinSock: %1\r\n"},
    {event::host_name_unknown, "Impossibile determinare il nome host locale: %1\r\n"},
    {event::relay_address_unknown, "Impossibile determinare l'idirizzo IP per %1: %2\r\n"},
    {event::service_unknown, "Impossibile localizzare il servizio %1: %2\r\n"},
    {event::setting_invalid, "Impostazione %1 non valida: %2\r\n"},
    {event::socket_failed, "socket() fallito: %1\r\n"},
    {event::setsockopt_failed, "setsockopt() fallito: %1\r\n"},
    {event::connect_failed, "connect(%1) fallito: %2\r\n"},
    {event::bind_failed, "bind() fallito: %1\r\n"},
    {event::listen_failed, "listen() fallito: %1\r\n"},
    {event::unexpected_reply, "Risposta inattesas %1 da SMTP remoto\r\n"},
    {event::connection_lost, "Persa connessione con SMTP remoto\r\n"},
    {event::attachment_type_invalid,
     "Impossibile inviare %1: il nome o il tipo file non \xe8 valido\r\n"},
    {event::reply_unintelligible, "Non capisco i dati ricevuti dall'SMTP remoto\r\n"},
    {event::quit_failed, "Chiusura modulo invio fallita; codice risposta %1\r\n"},
    {event::relay_tls_failed, "TLS con SMTP remoto %1 fallito: %2\r\n"},
    {event::relay_security_missing, "Sicurezza richiesta non disponibile con SMTP remoto: %1\r\n"},
    {event::relay_auth_failed, "Autenticazione con SMTP remoto fallita; codice risposta %1\r\n"},
    {event::relay_secret_unreadable, "Impossibile leggere le credenziali dal file %1: %2\r\n"},
    {event::mime_type_unsupported, "MIME type %1/%2 non \xe8 supportato\r\n"},
    {event::message_id_invalid, "Messaggio non valido-stringa Id nel file %1\r\n"},
    {event::uuencode_begin_missing,
     "Nessun inizio riga trovato per elemento multiparte %1 in %2\r\n"},
    {event::uuencode_end_missing, "Nessuna fine riga trovata per elemento multiparte %1 in %2\r\n"},
    {event::uuencode_text_write_failed,
     "Errore in scrittura testo %1 durante la separazione uuencode (testo troncato): %2\r\n"},
    {event::no_recipient, "Il messaggio non contiene un indirizzo \"a\" \r\n"},
    {event::no_sender, "Il messaggio non contiene un indirizzo \"da\" \r\n"},
    {event::no_attachment, "Il messaggio non contiene allegati\r\n"},
    {event::internal_inconsistency, "Errore di consitenza interna: %1\r\n"},
};
const std::size_t event_text_count = sizeof event_texts / sizeof event_texts[0];

const os::StringResource winsock_strings[] = {
    {1, "errore winsock: "},
    {4, "chiamata a funzione interrotta"},                                     // WSAEINTR
    {13, "permesso negato"},                                                   // WSAEACCES
    {14, "indirizzo errato"},                                                  // WSAEFAULT
    {22, "argomento non valido"},                                              // WSAEINVAL
    {24, "troppi file aperti"},                                                // WSAEMFILE
    {35, "risorsa temporaneamente non disponibile"},                           // WSAEWOULDBLOCK
    {36, "operazione in esecuzione ora"},                                      // WSAEINPROGRESS
    {37, "operazione gi\xe0 in esecuzione"},                                   // WSAEALREADY
    {38, "operazione socket su non-socket"},                                   // WSAENOTSOCK
    {39, "indirizzo destinazione richiesto"},                                  // WSAEDESTADDRREQ
    {40, "messaggio troppo lungo"},                                            // WSAEMSGSIZE
    {41, "tipo protocollo errato per socket"},                                 // WSAEPROTOTYPE
    {42, "errata opzione di protocollo"},                                      // WSAENOPROTOOPT
    {43, "protocollo non supportato"},                                         // WSAEPROTONOSUPPORT
    {44, "tipo socket non supportato"},                                        // WSAESOCKTNOSUPPORT
    {45, "operazione non supportata"},                                         // WSAEOPNOTSUPP
    {46, "famiglia di protocollo non supportata"},                             // WSAEPFNOSUPPORT
    {47, "famiglia di indirizzi non supportata dalla familia di protocolli"},  // WSAEAFNOSUPPORT
    {48, "indirizzo gi\xe0 in uso"},                                           // WSAEADDRINUSE
    {49, "impossibile assegnare gli indirizzi richiesti"},                     // WSAEADDRNOTAVAIL
    {50, "rete non disponibile"},                                              // WSAENETDOWN
    {51, "rete irraggiungibile"},                                              // WSAENETUNREACH
    {52, "la rete ha ripristinato la connessione"},                            // WSAENETRESET
    {53, "il software ha causato il termine della connessione"},               // WSAECONNABORTED
    {54, "ripristino della connessione dal punto"},                            // WSAECONNRESET
    {55, "nessuno spazio nel buffer disponibile"},                             // WSAENOBUFS
    {56, "socket gi\xe0 connesso"},                                            // WSAEISCONN
    {57, "socket non connesso"},                                               // WSAENOTCONN
    {58, "impossibile inviare dopo la chiusura socket"},                       // WSAESHUTDOWN
    {60, "connessione scaduta "},                                              // WSAETIMEDOUT
    {61, "connessione rifiutata"},                                             // WSAECONNREFUSED
    {64, "host non disponibile"},                                              // WSAEHOSTDOWN
    {65, "nessun accesso all'host"},                                           // WSAEHOSTUNREACH
    {67, "troppi processi"},                                                   // WSAEPROCLIM
    {91, "sottosistema di rete non disponibile"},                              // WSASYSNOTREADY
    {92, "versione WINSOCK.DLL incorretta"},                                   // WSAVERNOTSUPPORTED
    {93, "WSAStartup di successo non ancora eseguito"},                        // WSANOTINITIALISED
    {94, "chiusura soft in esecuzione"},                                       // WSAEDISCON
    {109, "tipo classe non trovato"},                                          // WSATYPE_NOT_FOUND
    {111, "host non trovato"},                                                 // WSAHOST_NOT_FOUND
    {112, "host non-authoritative non trovato"},                               // WSATRY_AGAIN
    {113, "questo \xe8 un errore non risolvibile"},                            // WSANO_RECOVERY
    {114, "nome valido, nessun record di dati del tipo richiesto"},            // WSANO_DATA
};
const std::size_t winsock_string_count = sizeof winsock_strings / sizeof winsock_strings[0];

const WinsockCodeString winsock_code_table[] = {
    {10004, 4},   {10013, 13}, {10014, 14}, {10022, 22},  {10024, 24},  {10035, 35},  {10036, 36},
    {10037, 37},  {10038, 38}, {10039, 39}, {10040, 40},  {10041, 41},  {10042, 42},  {10043, 43},
    {10044, 44},  {10045, 45}, {10046, 46}, {10047, 47},  {10048, 48},  {10049, 49},  {10050, 50},
    {10051, 51},  {10052, 52}, {10053, 53}, {10054, 54},  {10055, 55},  {10056, 56},  {10057, 57},
    {10058, 58},  {10060, 60}, {10061, 61}, {10064, 64},  {10065, 65},  {10067, 67},  {10091, 91},
    {10092, 92},  {10093, 93}, {10101, 94}, {10109, 109}, {11001, 111}, {11002, 112}, {11003, 113},
    {11004, 114},
};
const std::size_t winsock_code_count = sizeof winsock_code_table / sizeof winsock_code_table[0];

os::ModuleResources module_resources() {
    return {event_texts, event_text_count, winsock_strings, winsock_string_count};
}

}  // namespace qbsmtp
