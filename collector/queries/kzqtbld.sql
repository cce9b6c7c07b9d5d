-- kzqtbld: indexes. One row per index of the user databases: in each database its
-- @max_rows largest indexes, then TOP (@max_rows) of all by size.
-- Reads: sys.databases, and in each user database sys.indexes, sys.objects,
--        sys.dm_db_partition_stats, STATS_DATE, sys.dm_db_index_physical_stats (LIMITED).
-- Needs: CONNECT ANY DATABASE, VIEW ANY DEFINITION and VIEW SERVER STATE: indexes,
-- their statistics and their fragmentation are known only inside their database, so this
-- runs once in each online user database the login may enter (single-user databases are
-- skipped). Heaps have no index name or statistics and are left out.
-- Cost: the LIMITED scan reads the level above the leaf of each index chosen; the list is
-- cut to the largest indexes before that scan.
-- OPTSTATAGE: days since the index's statistics were updated; PCTFRAG: logical
-- fragmentation of the leaf level in percent (weighted over partitions); SPCUSED: MB used.
DECLARE @indexes TABLE (database_id int NOT NULL, object_id int NOT NULL, index_id int NOT NULL,
                        table_name nvarchar(300) NULL, index_name sysname NULL,
                        stats_age int NULL, used_pages bigint NULL, fragmentation float NULL);
DECLARE @each_db nvarchar(max) = N'';
SELECT @each_db = @each_db + N'EXEC ' + QUOTENAME(name)
                 + N'.sys.sp_executesql @q, N''@max_rows int'', @max_rows = @max_rows;'
FROM sys.databases
WHERE database_id > 4 AND state = 0 AND user_access <> 1 AND HAS_DBACCESS(name) = 1
  AND database_id NOT IN (SELECT rs.database_id
                          FROM sys.dm_hadr_database_replica_states AS rs
                          JOIN sys.availability_replicas AS ar ON ar.replica_id = rs.replica_id
                          WHERE rs.is_local = 1 AND rs.is_primary_replica = 0
                            AND ar.secondary_role_allow_connections <> 2);
INSERT INTO @indexes (database_id, object_id, index_id, table_name, index_name,
                      stats_age, used_pages, fragmentation)
EXEC sys.sp_executesql @each_db, N'@q nvarchar(max), @max_rows int',
    @max_rows = @max_rows,
    @q = N'SELECT DB_ID(), big.object_id, big.index_id, big.table_name, big.index_name,
                  DATEDIFF(day, STATS_DATE(big.object_id, big.index_id), GETDATE()),
                  big.used_pages, frag.pct
           FROM (SELECT TOP (@max_rows) i.object_id, i.index_id, i.name AS index_name,
                        OBJECT_SCHEMA_NAME(i.object_id) + N''.'' + o.name AS table_name,
                        (SELECT SUM(ps.used_page_count) FROM sys.dm_db_partition_stats AS ps
                         WHERE ps.object_id = i.object_id AND ps.index_id = i.index_id) AS used_pages
                 FROM sys.indexes AS i
                 JOIN sys.objects AS o ON o.object_id = i.object_id
                 WHERE o.is_ms_shipped = 0 AND o.type IN (''U'', ''V'')
                   AND i.index_id > 0 AND i.is_hypothetical = 0 AND i.is_disabled = 0
                 ORDER BY used_pages DESC) AS big
           OUTER APPLY (SELECT SUM(f.avg_fragmentation_in_percent * f.page_count)
                               / NULLIF(SUM(f.page_count), 0) AS pct
                        FROM sys.dm_db_index_physical_stats(DB_ID(), big.object_id, big.index_id,
                                                            NULL, ''LIMITED'') AS f
                        WHERE f.alloc_unit_type_desc = N''IN_ROW_DATA'') AS frag;';

SELECT TOP (@max_rows)
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    DB_NAME(x.database_id) AS UDBNAME,
    x.database_id AS DBID,
    x.table_name AS UTBLNAME,
    x.object_id AS TBLID,
    x.index_name AS UIDXNAME,
    x.index_id AS IDXID,
    x.stats_age AS OPTSTATAGE,
    x.fragmentation AS PCTFRAG,
    x.used_pages / 128 AS SPCUSED
FROM @indexes AS x
ORDER BY x.used_pages DESC;
